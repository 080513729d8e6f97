// Finds pauses: times in which the sender of a side sent nothing, although no audio is missing.
// The sample offset does not count a pause, but the send time shows it: the audio after it was
// sent later than the audio before it lasts. Both sides of a call stay in time with each other
// only if pauses are put back.
//
// A sender that was held up sends late as well, but catches up with the packets that follow.
// So whoever asks for the lag looks at those before he takes it for a pause.
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

    // How many seconds later than its place audio is sent that comes `ahead` samples after the
    // position, on a time axis that begins at `axis_begin`; 0 while `sample_rate` is 0.
    double lag_s(std::int64_t send_time, std::int64_t axis_begin, int sample_rate,
                 std::uint64_t ahead) const;

    // Takes a lag for a pause at the position; returns its length in samples. It is cut to
    // `longest_s` seconds; the rest is left out of the axis.
    std::uint64_t begin_pause(double lag_s, int sample_rate, double longest_s);

    // From the position on samples have another rate; until now it was that one.
    void change_rate(int former_rate);

    // Counts samples of audio and silence.
    void advance(std::uint64_t samples) { position_ += samples; }

    // On the time axis, in samples.
    std::uint64_t position() const { return position_; }
    // The same in seconds, at that rate since it changed last.
    double position_s(int sample_rate) const {
        return changed_at_s_ + seconds_of(position_ - changed_at_, sample_rate);
    }
    std::uint64_t pauses() const { return pauses_; }

  private:
    std::uint64_t position_ = 0;
    std::uint64_t changed_at_ = 0;  // Position at which the rate changed last,
    double changed_at_s_ = 0;       // in seconds as well.
    std::uint64_t pauses_ = 0;
    double cut_s_ = 0;  // The sum of what was cut off pauses.
};

}  // namespace qv::node
