// Notices when the sample rate of a side changes during a call, for example because a codec is
// negotiated again. It uses the length of frames, and their duration by the send times.
//
// A frame of a new length causes a doubt, and so do several frames in a row that last longer or
// shorter than they should. While there is a doubt, the audio of the side must be held. The doubt
// ends when a rate has been measured for a second, when frames are as they were before, or after a
// limited number of packets. A few odd packets therefore change nothing, and the change takes
// effect at the packet with which the doubt began.
//
// Plain values; belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "node/calls/rate_estimator.h"
#include "node/calls/types.h"

namespace qv::node {

// A change of the sample rate during a call. Rates in Hz.
struct RateChange {
    std::uint64_t position;  // The first sample with the new rate.
    int old_rate;
    int new_rate;
};

// Returns the time of a sample in seconds, for a side with these changes, in order, whose rate is
// now `latest_rate`.
double seconds_at(std::uint64_t position, const std::vector<RateChange>& changes, int latest_rate);

class RateChangeFinder {
  public:
    // A doubt ends after this many packets at the latest.
    static constexpr std::size_t MOST_HELD = 400;

    enum class Finding : std::uint8_t {
        USUAL,    // There is no doubt.
        DOUBT,    // This packet and the following ones must be held.
        SETTLED,  // The doubt has ended with this packet. found() returns the result.
    };

    // Evaluates a packet of the side, in order. `rate` is the side's in Hz, 0 while it is unknown.
    Finding add(std::uint16_t sample_count, std::int64_t send_time, int rate);

    // Samples are missing before the next packet.
    void gap(std::uint64_t samples);

    bool in_doubt() const { return doubt_ != Doubt::NONE; }

    // Ends the doubt with what has been measured so far, because no more packets may come.
    void settle(int rate);

    // The rate measured in the doubt that ended last. Nullopt if frames became as they were before,
    // or fit no rate.
    std::optional<int> found() const { return found_; }

  private:
    enum class Doubt : std::uint8_t { NONE, LENGTH, DURATION };

    void begin_frame(std::int64_t send_time, int rate);
    void count_duration(std::int64_t duration_us, int rate);
    bool finish_frame();
    bool is_too_long() const;
    bool is_known(std::uint32_t frame) const;
    void learn(std::uint32_t frame);
    void begin_doubt(Doubt doubt, std::int64_t send_time);
    bool weigh(std::int64_t send_time, int rate);
    bool end_doubt(std::optional<int> found, int rate);

    Doubt doubt_ = Doubt::NONE;
    std::array<std::uint32_t, 4> known_{};  // Usual lengths of frames at the side's rate. 0: none.
    std::size_t next_known_ = 0;
    std::uint32_t longest_known_ = 0;
    std::uint32_t unfinished_ = 0;    // Samples so far of the current frame.
    std::uint32_t frame_ = 0;         // The latest complete frame,
    unsigned run_ = 0;                // and how many in a row had its length.
    bool after_gap_ = true;           // Whether the frame may lack its beginning.
    std::int64_t last_time_ = 0;      // When the latest packet was sent,
    std::int64_t frame_time_ = 0;     // and the first one of the latest frame.
    int odd_durations_ = 0;           // In a row: too long if above 0, too short if below.
    unsigned usual_durations_ = 0;    // In a row.
    std::int64_t doubted_from_ = 0;   // Send time.
    std::int64_t patient_until_ = 0;  // Until then, odd durations cause no doubt again.
    bool patient_ = false;
    std::size_t held_ = 0;
    std::uint32_t offset_ = 0;  // Of the packets since the doubt began,
    RateEstimator estimator_;   // as passed to the estimator.
    std::optional<int> found_;
};

}  // namespace qv::node
