// Finds the sample rate of one side from what its data packets carry: how far the
// sample offset moves against the send time, and how long frames are. Frames last 10, 15,
// 20... ms as a rule, which tells neighbouring rates apart; so a sender that is often late
// is understood all the same. Pauses of the sender, and what it sends at once after being
// held up, are left out of the account. Plain values; belongs to one thread.
#pragma once

#include <cstdint>
#include <optional>

#include "node/calls/types.h"

namespace qv::node {

class RateEstimator {
  public:
    // Takes in a packet; those that come out of order are ignored.
    void add(std::uint32_t sample_offset, std::uint16_t sample_count, std::int64_t send_time);

    // The usual rate nearest to the measured one; nothing while less than a second has
    // been seen, or so little that a packet which was sent late makes it uncertain, and
    // when no usual rate is near (a sender that does not run in real time).
    std::optional<int> rate() const;

    // The same from as little as there is, for a side that has ended.
    std::optional<int> best_guess() const;

    // The usual rate at which a frame lasts 20 ms, whatever the time; nothing when there
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
    std::uint32_t frame_ = 0;       // The frame length that most frames have,
    unsigned votes_ = 0;            // by so many more than any other.
};

}  // namespace qv::node
