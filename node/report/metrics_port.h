// Serves metrics as text over HTTP.
//
// The server answers on threads of its own, until this object is destroyed. The destructor may take
// up to two seconds, because the server checks only that often whether it must end.
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
