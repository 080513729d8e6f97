// Finds the sample rate of one side from its data packets: from the growth of the sample offset
// over the send time, and from the length of frames. Frames usually last 10, 15, 20... ms, which
// distinguishes neighbouring rates even if the sender is often late. Pauses of the sender, and
// packets that it sends quickly after a delay, are not measured. Plain values; belongs to one
// thread.
#pragma once

#include <cstdint>
#include <optional>

#include "node/calls/types.h"

namespace qv::node {

class RateEstimator {
  public:
    // Evaluates a packet. Packets out of order are ignored.
    void add(std::uint32_t sample_offset, std::uint16_t sample_count, std::int64_t send_time);

    // Returns the usual rate that is nearest to the measured one. Returns nullopt if less than a
    // second has been measured, if late packets make the result uncertain, or if no usual rate is
    // near (because the sender does not run in real time).
    std::optional<int> rate() const;

    // Returns the best guess from what has been measured, for a side that has ended.
    std::optional<int> best_guess() const;

    // Returns how much time has been measured.
    Micros measured_span() const { return span_; }

    // Returns the usual rate at which a frame lasts 20 ms, regardless of the send times. Nullopt if
    // there is none.
    std::optional<int> rate_of_20_ms_frames() const;

  private:
    void count_packet(std::uint16_t sample_count);
    void count_frame();
    double measured() const;

    bool begun_ = false;
    bool catching_up_ = true;  // The first packet may have been delayed.
    std::uint32_t last_offset_ = 0;
    std::int64_t last_time_ = 0;
    std::uint64_t samples_ = 0;
    Micros span_{0};
    Micros longest_{0};             // The longest interval of span_.
    std::uint32_t unfinished_ = 0;  // Samples so far of a frame that is split into packets.
    std::uint32_t frame_ = 0;       // The most frequent frame length so far,
    unsigned votes_ = 0;            // by a majority vote; these are its votes.
};

}  // namespace qv::node
