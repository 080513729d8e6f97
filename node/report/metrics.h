// The receiver's counters for Prometheus, served as text over HTTP on loopback.
//
// The server answers on threads of its own; update() belongs to the event loop's thread
// and only sets atomic values.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "node/calls/totals.h"

namespace qv::node {

// What a scrape shows.
struct MetricValues {
    const Totals& totals;
    const std::array<std::uint64_t, media::DECODE_RESULT_COUNT>& malformed;
    std::uint64_t received = 0;
    std::uint64_t overflowed = 0;
    std::size_t calls = 0;
    std::size_t open_files = 0;
    int receive_buffer = 0;
    std::uint64_t calls_not_written = 0;
};

class Metrics {
  public:
    // Throws std::exception when the port cannot be used; 0 takes a free one.
    explicit Metrics(std::uint16_t port);
    ~Metrics();

    std::uint16_t port() const;
    void update(const MetricValues& values);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv::node
