// Counts the frames of all calls as they are played.
//
// One for a run; the media threads add, any thread may read meanwhile. No locks.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "host/call.h"
#include "tools/call/latency_histogram.h"

namespace qv::tools::call {

// The data packets that a tapped frame becomes: one for each 1322 bytes begun, and one
// for an empty frame.
std::uint64_t packets_of_frame(std::uint32_t bytes);

class FrameTally : public host::FrameObserver {
  public:
    struct Side {
        std::uint64_t frames = 0;
        std::uint64_t bytes = 0;
        std::uint64_t tapped_frames = 0;  // a bug was told of
        std::uint64_t packets = 0;        // that those it was given should have become
        std::uint64_t altered = 0;        // handed back changed
    };

    explicit FrameTally(bool paced) : paced_(paced) {}

    void played(host::Direction direction, const host::FrameResult& result,
                std::chrono::nanoseconds lateness) override;

    Side side(host::Direction direction) const;
    std::uint64_t frames() const;

    // From the due time of a frame until the module had sent it; paced frames only.
    const LatencyHistogram& lateness() const { return lateness_; }
    // Time that the module took for a frame, its system calls included.
    const LatencyHistogram& handling() const { return handling_; }

  private:
    // Each direction has threads of its own: counters apart, so that they do not slow
    // each other down.
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
