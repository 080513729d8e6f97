// Audio of one side on its way to one listener: a ring of bounded size between the thread of the
// call, which writes and never waits, and the thread of the listener, which reads. What finds no
// room is lost and counted.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "node/calls/types.h"

namespace qv::node::web {

class AudioTap {
  public:
    static constexpr std::size_t PART_SAMPLES = 240;
    static constexpr std::size_t MOST_PARTS = 512;  // 10 s in frames of 20 ms at 8 kHz.

    struct Head {
        std::uint64_t place = 0;  // Of its first sample on the axis of the call.
        int sample_rate = 0;      // Hz.
        Micros came{0};           // When its datagram came, on the steady clock.
        bool after_loss = false;  // Audio before it was lost, or found no room here.
    };
    struct Part : Head {
        std::uint32_t count = 0;
        std::array<std::int16_t, PART_SAMPLES> samples{};
    };

    // For the thread of the call. More samples than a part holds become several parts.
    void push(const std::int16_t* samples, std::size_t count, Head head);

    // For the thread of the listener: returns the oldest part, or null. It is valid until pop().
    const Part* front() const;
    void pop();

  private:
    std::array<Part, MOST_PARTS> parts_;
    std::atomic<std::uint64_t> written_{0};
    std::atomic<std::uint64_t> read_{0};
    bool lost_ = false;  // Since the last part that found room. Thread of the call only.
};

}  // namespace qv::node::web
