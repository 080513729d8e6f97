// Counts the frames of all calls as they are played.
//
// A run has one tally. The media threads add while any thread may read. No locks.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "host/call.h"
#include "tools/call/latency_histogram.h"

namespace qv::tools::call {

// The number of data packets for a tapped frame: one per 1322 bytes or part of them, one for
// an empty frame.
std::uint64_t packets_of_frame(std::uint32_t bytes);

class FrameTally : public host::FrameObserver {
  public:
    struct Side {
        std::uint64_t frames = 0;
        std::uint64_t bytes = 0;
        std::uint64_t tapped_frames = 0;  // for which a bug was called
        std::uint64_t packets = 0;        // expected for the frames that a bug got
        std::uint64_t altered = 0;        // changed by a bug
    };

    explicit FrameTally(bool paced) : paced_(paced) {}

    void played(host::Direction direction, const host::FrameResult& result,
                std::chrono::nanoseconds lateness) override;

    Side side(host::Direction direction) const;
    std::uint64_t frames() const;

    // The time from when a frame is due until the module has sent it. Only for paced frames.
    const LatencyHistogram& lateness() const { return lateness_; }
    // The time that the module takes for a frame, with its system calls.
    const LatencyHistogram& handling() const { return handling_; }

  private:
    // The directions have separate threads, so their counters have separate cache lines.
    struct alignas(64) Counters {
        std::atomic<std::uint64_t> frames{0};
        std::atomic<std::uint64_t> bytes{0};
        std::atomic<std::uint64_t> tapped_frames{0};
        std::atomic<std::uint64_t> packets{0};
        std::atomic<std::uint64_t> altered{0};
    };

    const bool paced_;  // frames have due times
    std::array<Counters, 2> counters_;
    LatencyHistogram lateness_;
    LatencyHistogram handling_;
};

}  // namespace qv::tools::call
