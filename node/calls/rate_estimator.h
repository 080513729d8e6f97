// Finds the sample rate of one side from its data packets: from the growth of the sample offset
// over send time, and from the length of frames. Frames usually last 10, 15, 20... ms, which
// distinguishes neighbouring rates even if the sender is often late. Pauses of the sender, and
// packets that it sends at once after a delay, are not measured. Plain values; belongs to one
// thread.
#pragma once

#include <cstdint>
#include <optional>

#include "node/calls/types.h"

namespace qv::node {

class RateEstimator {
  public:
    // Takes in a packet; those that come out of order are ignored.
    void add(std::uint32_t sample_offset, std::uint16_t sample_count, std::int64_t send_time);

    // The usual rate nearest to the measured one. Nothing while less than a second has been
    // measured, while packets that were sent late leave it uncertain, and when no usual rate
    // is near (a sender that does not run in real time).
    std::optional<int> rate() const;

    // The best guess from however little was measured, for a side that has ended.
    std::optional<int> best_guess() const;

    // The usual rate at which a frame lasts 20 ms, whatever the send times; nothing when there
    // is none.
    std::optional<int> rate_of_20_ms_frames() const;

  private:
    void count_packet(std::uint16_t sample_count);
    void count_frame();
    double measured() const;

    bool begun_ = false;
    bool catching_up_ = true;  // The first packet may have been held up.
    std::uint32_t last_offset_ = 0;
    std::int64_t last_time_ = 0;
    std::uint64_t samples_ = 0;
    Micros span_{0};
    Micros longest_{0};             // Interval of span_.
    std::uint32_t unfinished_ = 0;  // Samples of a split frame's packets so far.
    std::uint32_t frame_ = 0;       // The most frequent frame length so far,
    unsigned votes_ = 0;            // by a majority vote; these are its votes.
};

}  // namespace qv::node
