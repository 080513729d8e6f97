// Finds the times in which a side's sender was silent: audio that, by its send time,
// comes later than the audio before it lasts. The sample offset goes on as if nothing
// had happened then, so both sides of a call are side by side in time only if the pause
// is put back.
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

    // The pause, in samples, before audio sent at `send_time`, for a time axis that
    // begins at `axis_begin`; 0 for none and while `sample_rate` is 0. A pause is cut to
    // `longest_s`, and the axis with it.
    std::uint64_t pause_before(std::int64_t send_time, std::int64_t axis_begin, int sample_rate,
                               double longest_s);

    // Counts samples that the side has gone on: audio, silence and pauses.
    void advance(std::uint64_t samples) { position_ += samples; }

    // On the time axis, in samples.
    std::uint64_t position() const { return position_; }
    std::uint64_t pauses() const { return pauses_; }

  private:
    std::uint64_t position_ = 0;
    std::uint64_t pauses_ = 0;
    double cut_s_ = 0;  // What was cut off from pauses.
};

}  // namespace qv::node
