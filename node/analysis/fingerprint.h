// Computes what makes audio recognisable: for every frame, which bands have become louder relative
// to their neighbours; and its landmarks, which are pairs of peaks in the spectrum.
//
// The same code processes references and sides. It works at ANALYSIS_RATE, with frames of 64 ms
// that begin every 16 ms. Belongs to one thread; allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "node/analysis/transform.h"

namespace qv::node::analysis {

constexpr int ANALYSIS_RATE = 8000;
constexpr std::size_t FRAME = 512;
constexpr std::size_t HOP = 128;

// Two neighbouring peaks: their frequencies and the time between them.
struct Landmark {
    std::uint32_t kind;  // Below Fingerprint::KINDS.
    std::uint32_t age;   // Frames from the first peak to the newest frame.
    float contrast;      // How much louder the second peak is, in decibels.
};

class Fingerprint {
  public:
    // The level of digital silence. Lower levels are ignored.
    static constexpr float QUIETEST_DB = -78;

    static constexpr std::size_t BITS = 32;
    static constexpr std::size_t FIRST_BIN = 16;  // 250 Hz
    static constexpr std::size_t BINS = 203;      // to 3400 Hz
    static constexpr std::size_t MOST_LANDMARKS = 96;

    // A peak is higher than this many frames on both sides of it. So a peak is known only this many
    // frames later.
    static constexpr std::size_t REACH = 2;
    // Peaks are paired if they are this many frames, and fewer than WIDEST_PAIR bins, apart.
    static constexpr std::size_t SHORTEST_PAIR = 2;
    static constexpr std::size_t LONGEST_PAIR = 10;
    static constexpr std::size_t WIDEST_PAIR = 32;
    static constexpr std::size_t KINDS =
        BINS * (2 * WIDEST_PAIR - 1) * (LONGEST_PAIR - SHORTEST_PAIR + 1);

    Fingerprint();

    // Processes the next HOP samples. The first frame is complete after the fourth hop.
    void add(const float* samples) {
        if (begin(samples)) {
            finish();
        }
    }
    // Two halves of add(), which take about the same time. begin() returns whether a frame is
    // complete. If it is, finish() must follow.
    bool begin(const float* samples);
    void finish();

    // The number of frames so far. The newest one has the number frames() - 1 and begins at sample
    // (frames() - 1) * HOP.
    std::uint64_t frames() const { return frames_; }

    // Of the newest frame: bit n is set if band n has grown more than band n + 1.
    std::uint32_t bits() const { return bits_; }

    // The values behind bit n of the newest frame, in decibels: how much more one band has grown or
    // shrunk than the other, and the level of the quieter one.
    struct Change {
        float difference;  // Not negative.
        float level;       // Relative to a full-scale sine.
    };
    Change change(std::size_t n) const;
    // The level of the newest frame, relative to a full-scale sine.
    float level_db() const { return level_; }
    const std::array<float, FRAME / 2 + 1>& power() const { return power_; }

    // The strongest peak of each region of the spectrum, as a bin counted from FIRST_BIN, or
    // NO_PEAK. These belong to the frame REACH frames before the newest one.
    static constexpr std::size_t REGIONS = 8;
    static constexpr std::uint8_t NO_PEAK = 0xFE;
    using Peaks = std::array<std::uint8_t, REGIONS>;
    const Peaks& peaks() const { return peaks_[frames_ % RING]; }
    // The level of the peak of a region that has one, relative to a full-scale sine.
    float peak_level(std::size_t region) const { return levels_[frames_ % RING][region]; }

    // The landmarks that the newest frame completed.
    const Landmark* landmarks() const { return landmarks_.data(); }
    std::size_t landmark_count() const { return landmark_count_; }

    // Forgets the audio so far. Frame numbers continue from `frames`.
    void reset(std::uint64_t frames);

  private:
    static constexpr std::size_t BANDS = BITS + 1;
    static constexpr std::size_t BACK = 2;  // How many frames back the bits compare with.
    static constexpr std::size_t KEPT = 2 * REACH + 1;
    static constexpr std::size_t RING = 16;  // Frames whose peaks are kept for pairs.

    void compare_bands();
    float growth(std::size_t n) const;
    void find_peaks();
    void pair_peaks();
    void pair_with(std::size_t region, std::size_t apart);
    std::uint8_t peak_of(std::size_t region) const;

    const Transform& transform_;
    std::uint64_t frames_ = 0;
    std::size_t heard_ = 0;  // Hops since the last reset, up to the number that fills all buffers.
    std::array<float, FRAME> samples_{};
    std::array<float, FRAME / 2 + 1> power_{};
    std::array<std::array<float, BANDS>, BACK + 1> bands_{};  // Decibels; newest first.
    std::array<std::array<float, BINS>, KEPT> spectra_{};     // By frame modulo KEPT.
    // By frame modulo RING.
    std::array<Peaks, RING> peaks_{};
    std::array<std::array<float, REGIONS>, RING> levels_{};
    std::uint32_t bits_ = 0;
    float level_ = 0;
    std::array<Landmark, MOST_LANDMARKS> landmarks_{};
    std::size_t landmark_count_ = 0;
};

}  // namespace qv::node::analysis
