// The counters of the media node for Prometheus, served as text over HTTP, together with the usual
// figures of a process.
//
// The server answers on threads of its own. update() belongs to the event loop's thread and only
// sets atomic values.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>

#include "node/analysis/analyser.h"
#include "node/report/figures.h"

namespace qv::node {

class Metrics {
  public:
    // Throws std::exception if the address cannot be used. Port 0 selects a free port.
    explicit Metrics(const sockaddr_in& address);
    ~Metrics();

    std::uint16_t port() const;
    void update(const NodeFigures& figures, const Analyser::Figures& analysis);

  private:
    void update(const Analyser::Figures& analysis);

    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv::node
