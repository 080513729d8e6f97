// Finds pauses: times in which the sender of a side sent nothing, although no audio is missing.
// The sample offset does not count a pause, but the send time shows it: the audio after it was
// sent later than the audio before it lasts. Both sides of a call stay in time with each other
// only if pauses are put back.
//
// Plain values; belongs to one thread.
#pragma once

#include <cstdint>

#include "node/calls/types.h"

namespace qv::node {

// Time in which the sender sent nothing, though no audio is missing.
struct Pause {
    std::uint64_t samples;   // Its length.
    std::uint64_t position;  // Samples delivered before it, silence of gaps included.
};

class PauseFinder {
  public:
    // Shorter ones are jitter.
    static constexpr Micros SHORTEST{250'000};

    // The pause, in samples, before audio sent at `send_time`, on a time axis that begins at
    // `axis_begin`; 0 for none and while `sample_rate` is 0. A pause is cut to `longest_s`
    // seconds; the rest is left out of the axis.
    std::uint64_t pause_before(std::int64_t send_time, std::int64_t axis_begin, int sample_rate,
                               double longest_s);

    // Counts samples of audio, silence and pauses.
    void advance(std::uint64_t samples) { position_ += samples; }

    // On the time axis, in samples.
    std::uint64_t position() const { return position_; }
    std::uint64_t pauses() const { return pauses_; }

  private:
    std::uint64_t position_ = 0;
    std::uint64_t pauses_ = 0;
    double cut_s_ = 0;  // The sum of what was cut off pauses.
};

}  // namespace qv::node
