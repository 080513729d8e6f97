// Serves metrics as text over HTTP.
//
// The server answers on threads of its own, until the end of this object. That end may take up to
// two seconds, because the server looks for it no more often.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

namespace prometheus {
class Exposer;
}

namespace qv::node {

class Metrics;

class MetricsPort {
  public:
    // Throws std::exception if the address cannot be used. Port 0 selects a free port.
    MetricsPort(const Metrics& metrics, const sockaddr_in& address);
    ~MetricsPort();

    std::uint16_t port() const;

  private:
    std::unique_ptr<prometheus::Exposer> exposer_;
};

}  // namespace qv::node
