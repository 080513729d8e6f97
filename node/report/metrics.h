// The receiver's counters for Prometheus, served as text over HTTP on the loopback.
//
// The server answers on threads of its own; update() belongs to the event loop's thread
// and only sets atomic values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "node/report/figures.h"

namespace qv::node {

class Metrics {
  public:
    // Throws std::exception when the port cannot be used; 0 takes a free one.
    explicit Metrics(std::uint16_t port);
    ~Metrics();

    std::uint16_t port() const;
    void update(const NodeFigures& figures);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv::node
