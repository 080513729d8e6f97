// Maps between the positions of a side, which leave out the sender's pauses, and places on an axis
// that includes them. Only the latest pauses are remembered, because detections lie at most seconds
// back. Plain values; belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "node/calls/pause_finder.h"

namespace qv::node {

class PauseMap {
  public:
    static constexpr std::size_t MOST_PAUSES = 64;

    // Adds the next pause of the side.
    void add(const Pause& pause);

    // Returns the place of a position. At a pause, this is the place behind it, or with `is_end`
    // the place before it.
    std::uint64_t place_of(std::uint64_t position, bool is_end = false) const;

    // Returns the position at a place. All places within a pause have the position of the pause.
    std::int64_t position_at(std::int64_t place) const;

  private:
    struct Paused {
        std::uint64_t position;
        std::uint64_t samples;
        std::uint64_t before;  // Samples of the pauses before it.
    };

    std::deque<Paused> pauses_;
};

}  // namespace qv::node
