// The shape of the latest 50 seconds of one side, as WaveGatherer makes it. The thread of the call
// adds columns and never waits; any thread may read at the same time.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "node/calls/wave_gatherer.h"

namespace qv::node::web {

class WaveRing {
  public:
    // A column stays readable for at least this many further columns.
    static constexpr std::uint64_t READABLE = 960;

    // For the thread of the call.

    void add(const Wave& wave);

    // For any thread.

    // The number of columns so far.
    std::uint64_t end() const { return end_.load(std::memory_order_acquire); }
    // Returns the columns from `begin` to `end`, two signed bytes each: the lowest and the highest
    // sample. They must be readable.
    std::string columns(std::uint64_t begin, std::uint64_t end) const;

  private:
    void add_silence(std::uint64_t columns);

    static constexpr std::uint64_t COLUMNS = 1024;

    std::atomic<std::uint64_t> end_{0};
    std::array<std::atomic<std::uint16_t>, COLUMNS> columns_{};
};

}  // namespace qv::node::web
