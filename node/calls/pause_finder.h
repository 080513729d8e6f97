// Finds pauses: times in which the sender of a side sent nothing, although no audio is missing. The
// sample offset does not count a pause, but the send times show it: after a pause, they have
// advanced by more than the audio lasts. The sides of a call stay aligned only if pauses are
// inserted again.
//
// A sender that was delayed also sends late, but then catches up. The caller must therefore compare
// several lags before it takes one as a pause.
//
// Plain values; belongs to one thread.
#pragma once

#include <cstdint>

#include "node/calls/types.h"

namespace qv::node {

// Time in which the sender sent nothing, although no audio is missing.
struct Pause {
    std::uint64_t samples;   // Length of the pause.
    std::uint64_t position;  // Samples delivered before it, including the silence of gaps.
};

class PauseFinder {
  public:
    // Shorter ones are jitter.
    static constexpr Micros SHORTEST{250'000};

    // The lag in seconds: how much later than its place the audio is sent that comes `ahead`
    // samples after the position, on a time axis that begins at `axis_begin`. 0 while `sample_rate`
    // is 0.
    double lag_s(std::int64_t send_time, std::int64_t axis_begin, int sample_rate,
                 std::uint64_t ahead) const;

    // Inserts a lag as a pause at the position. Returns its length in samples. It is cut to
    // `longest_s` seconds; the rest is left out of the axis.
    std::uint64_t begin_pause(double lag_s, int sample_rate, double longest_s);

    // From the position on, samples have another rate. Until now it was `former_rate`.
    void change_rate(int former_rate);

    // Counts samples of audio and silence.
    void advance(std::uint64_t samples) { position_ += samples; }

    // The position on the time axis, in samples.
    std::uint64_t position() const { return position_; }
    // The same in seconds, at that rate since the last change.
    double position_s(int sample_rate) const {
        return changed_at_s_ + seconds_of(position_ - changed_at_, sample_rate);
    }
    std::uint64_t pauses() const { return pauses_; }

  private:
    std::uint64_t position_ = 0;
    std::uint64_t changed_at_ = 0;  // The position of the last change of rate,
    double changed_at_s_ = 0;       // also in seconds.
    std::uint64_t pauses_ = 0;
    double cut_s_ = 0;  // The sum of the parts that were cut off pauses.
};

}  // namespace qv::node
