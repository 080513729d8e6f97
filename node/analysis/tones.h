// Stationary tones: beeps, ring back, special information tones. They have nothing that
// changes from frame to frame, so fingerprints cannot tell them apart; they are told by
// their frequencies and their lengths.
//
// The same code reads references and sides, so what it does to the edges of a tone is the
// same in both. Belongs to one thread; allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "node/analysis/fingerprint.h"

namespace qv::node::analysis {

// One to three sines that sound together without a change. Times are in frames.
struct Tone {
    static constexpr std::size_t MOST_SINES = 3;

    std::array<float, MOST_SINES> hz{};  // Rising.
    std::size_t sines = 0;               // 0 is no tone.
    std::int64_t begin = 0;
    std::int64_t end = 0;  // The first frame without it.

    std::int64_t length() const { return end - begin; }
    bool sounds_like(const Tone& other) const;
};

// Finds the tones of a side.
class ToneFinder {
  public:
    // Shorter ones are not tones but accidents.
    static constexpr std::int64_t SHORTEST = 6;

    using Power = std::array<float, FRAME / 2 + 1>;

    // Takes in the power of a frame. Returns whether a tone has ended, which is then last().
    bool add(const Power& power, std::int64_t frame);

    // The tone that goes on; its end is where it has come to. Without sines if none does.
    const Tone& current() const { return current_; }
    const Tone& last() const { return last_; }

    // Whether the newest frame had sound that could be heard.
    bool audible() const { return audible_; }

    void reset() { *this = ToneFinder(); }

  private:
    Tone tone_of(const Power& power);
    bool end_tone();

    Tone current_;
    Tone last_;
    bool audible_ = false;
};

// The tones that a reference consists of.
class TonePattern {
  public:
    // Longer tones are reported before they end.
    static constexpr std::int64_t LONGEST = 156;  // 2.5 s
    static constexpr std::size_t MOST_TONES = 6;

    // `tones` of a reference with `audible` frames of sound; empty() unless they are nearly
    // all of it.
    TonePattern() = default;
    TonePattern(std::vector<Tone> tones, std::int64_t audible);

    bool empty() const { return tones_.empty(); }

    // Where the reference begins, in frames, if `heard`, the newest `count` tones of a side
    // in order, end with the pattern; `misfit` is then how far the lengths are off, 0 to 1.
    bool ends(const Tone* heard, std::size_t count, std::int64_t& begin, double& misfit) const;

    // Whether a tone that goes on is long enough to be reported now.
    bool goes_on(const Tone& heard) const;

    const Tone& first() const { return tones_.front(); }

  private:
    std::vector<Tone> tones_;  // Of a cadence, which repeats one tone, only the first two.
};

}  // namespace qv::node::analysis
