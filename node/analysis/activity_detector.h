// Finds where the audio of one side is active: speech, music, tones, or anything else above the
// noise around it.
//
// Compares the level of each band with the recent noise, every 10 ms. Positions are those of the
// sound itself: an onset is reported when the sound has lasted for the minimum length, an end when
// the hang-over has passed since it. Sound that fades into the noise ends where it is likely to
// fall below the level of activity, which the frames of one hang-over decide. All memory, about
// 12 KiB, is allocated at construction. Belongs to one thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "node/analysis/transform.h"

namespace qv::node::analysis {

struct ActivityOptions {
    // Sound below this level is no activity. Decibels relative to a full-scale square wave, -90 to
    // 0.
    double level_db = -55;
    // Pauses up to this length belong to the activity around them. 0 to 10,000.
    int hang_over_ms = 200;
    // Shorter activity is not reported. 0 to 10,000.
    int minimum_ms = 50;

    // Returns which option is invalid and why, or an empty text.
    std::string complaint() const;
};

struct ActivityChange {
    bool active;
    // First sample of the side that is active, or that is no longer active.
    std::uint64_t position;
    std::uint64_t heard;  // Position up to which the side had been heard.
};

class ActivityOutput {
  public:
    virtual ~ActivityOutput() = default;
    virtual void activity(const ActivityChange& change) = 0;
};

class ActivityDetector {
  public:
    static constexpr int LOWEST_RATE = 4000;
    static constexpr int HIGHEST_RATE = 48'000;

    // For a side of `sample_rate` Hz whose next sample is at `position`. Throws
    // std::invalid_argument for a rate that is out of range and for options with a complaint.
    ActivityDetector(int sample_rate, const ActivityOptions& options, std::uint64_t position = 0);

    // Processes the next samples of the side, any number of them.
    void add(const std::int16_t* samples, std::size_t count, ActivityOutput& out);

    // The next samples are not available: a gap, a pause or silence of any length.
    void skip(std::uint64_t samples, ActivityOutput& out);

    // Ends activity that is still going on, at the last sample heard or before it, and reports
    // this. The detector then starts again.
    void finish(ActivityOutput& out);

    bool active() const { return active_; }
    std::uint64_t position() const { return position_; }

  private:
    static constexpr std::size_t BANDS = 20;
    static constexpr std::size_t BLOCKS = 8;  // Blocks of time over which the noise is the minimum.
    static constexpr std::size_t RECENT = 32;  // How many frames before now an onset may lie.

    using Levels = std::array<float, BANDS>;

    void add_piece(const float* samples, std::size_t count, ActivityOutput& out);
    void add_frame(ActivityOutput& out);
    float excess();
    void learn(const Levels& levels);
    void decide(float excess_db, ActivityOutput& out);
    void step(bool active, ActivityOutput& out);
    void learn_spectrum();
    void learn_quiet();
    float evidence_of_sound() const;
    void extend_end();
    float noise_of(std::size_t band) const;
    std::uint64_t frame_position(std::int64_t frame) const;

    const Transform* transform_;
    ActivityOptions options_;
    int sample_rate_;
    std::size_t hop_;
    std::size_t window_;
    std::int64_t hang_over_;  // In frames, like the next one.
    std::int64_t minimum_;
    std::array<std::size_t, BANDS + 1> edges_{};

    std::uint64_t origin_;  // Sample of the side at which frame 0 begins.
    std::uint64_t position_;
    std::vector<float> shape_;    // Of the analysis window.
    std::vector<float> samples_;  // Of the analysis window.
    std::size_t filled_ = 0;      // Samples of the next hop so far.
    std::size_t silent_ = 0;      // Consecutive zero samples.
    std::int64_t frame_ = -2;     // Number of the last frame that was decided.

    std::array<Levels, BLOCKS> minima_{};  // One for each block of time, newest first.
    Levels smooth_{};
    Levels noise_{};
    int block_frames_ = 0;
    int blocks_ = 0;
    std::array<Levels, 2> earlier_{};  // Of the previous frames, newest first.
    float all_ = 0;                    // Power of the previous frame.

    std::array<bool, RECENT> faint_{};  // Whether there was faint sound; by frame modulo RECENT.
    bool loud_ = false;
    bool active_ = false;
    Levels spectrum_{};  // Power of the recent sound without the noise.
    Levels quiet_{};     // Mean power of frames without sound.
    int quiet_frames_ = 0;
    float evidence_ = 0;  // That sound has continued since last_, up to the newest frame,
    float most_ = 0;      // and up to end_, for which it is highest.

    std::int64_t begin_ = -1;  // First frame of sound that may become activity.
    std::int64_t last_ = -1;   // Last frame of certain sound.
    std::int64_t end_ = 0;     // Frame at which sound has ended, if it does not begin again.
    std::int64_t sound_ = 0;   // Frames of sound since begin_.
};

}  // namespace qv::node::analysis
