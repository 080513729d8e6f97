// Stationary tones: beeps, ringback tones, special information tones. Nothing in them changes from
// frame to frame, so fingerprints cannot distinguish them. They are recognised by their frequencies
// and lengths.
//
// The same code processes references and sides, so it affects the edges of a tone in the same way
// in both. Belongs to one thread; allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "node/analysis/fingerprint.h"

namespace qv::node::analysis {

// One to three sines that sound together and do not change. Times are in frames.
struct Tone {
    static constexpr std::size_t MOST_SINES = 3;

    std::array<float, MOST_SINES> hz{};  // Ascending.
    std::size_t sines = 0;               // 0: no tone.
    std::int64_t begin = 0;
    std::int64_t end = 0;  // The first frame without the tone.

    std::int64_t length() const { return end - begin; }
    bool sounds_like(const Tone& other) const;
};

// Finds the tones of a side.
class ToneFinder {
  public:
    // Shorter ones are ignored: they occur by chance.
    static constexpr std::int64_t SHORTEST = 6;

    using Power = std::array<float, FRAME / 2 + 1>;

    // Processes the power of a frame. Returns true if a tone has ended; last() then returns it.
    bool add(const Power& power, std::int64_t frame);

    // The tone that is playing; its end is the current frame. Without sines if none is playing.
    const Tone& current() const { return current_; }
    const Tone& last() const { return last_; }

    // Whether the newest frame had audible sound.
    bool audible() const { return audible_; }

    void reset() { *this = ToneFinder(); }

  private:
    Tone tone_of(const Power& power);
    bool end_tone();

    Tone current_;
    Tone last_;
    bool audible_ = false;
};

// The tones of which a reference consists.
class TonePattern {
  public:
    // Longer tones are reported before they end.
    static constexpr std::int64_t LONGEST = 156;  // 2.5 s
    static constexpr std::size_t MOST_TONES = 6;

    // The pattern of a reference with these `tones` and `audible` frames of sound. It is empty()
    // unless the tones are nearly all of the sound.
    TonePattern() = default;
    TonePattern(std::vector<Tone> tones, std::int64_t audible);

    bool empty() const { return tones_.empty(); }

    // If `heard`, the newest `count` tones of a side in order, ends with the pattern: returns the
    // frame at which the reference begins, and sets `misfit` to how far the lengths differ, 0 to 1.
    bool ends(const Tone* heard, std::size_t count, std::int64_t& begin, double& misfit) const;

    // Returns whether a tone that is still playing is long enough to be reported now.
    bool goes_on(const Tone& heard) const;

    const Tone& first() const { return tones_.front(); }

  private:
    std::vector<Tone> tones_;  // Of a cadence, which repeats one tone, only the first two.
};

}  // namespace qv::node::analysis
