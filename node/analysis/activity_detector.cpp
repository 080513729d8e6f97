#include "node/analysis/activity_detector.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace qv::node::analysis {

namespace {

constexpr double LOWEST_HZ = 100;
constexpr double HIGHEST_HZ = 7600;
constexpr float FULL_SCALE = 32768;

// The noise of a band is estimated from its lowest level within BLOCKS blocks of this many frames.
// It is multiplied by LEAST_TO_MEAN, because the lowest level is below the mean.
constexpr int BLOCK_FRAMES = 20;
constexpr float SMOOTHING = 0.7F;
constexpr float LEAST_TO_MEAN = 2.0F;
// The lower limit of the noise, which also stands for it before anything is known: power of all
// bands together.
constexpr float QUIETEST_DB = -75;

// Mean over the bands, in decibels above the noise: sound begins at the first level and continues
// down to the second.
constexpr float BEGINS_DB = 2.0F;
constexpr float GOES_ON_DB = 1.2F;
constexpr float MOST_OF_BAND_DB = 20;

// Whether sound continues under the noise is decided by comparing two cases for each frame: noise
// alone, and noise with sound that is this much louder than the level of activity. The sound is
// assumed to have the spectrum of the sound before. With 12 dB, sound ends in noise where it ends
// without noise; with 6 dB it ends 60 ms too late.
constexpr float ABOVE_LEVEL_DB = 12;
constexpr float SPECTRUM_SMOOTHING = 0.8F;
constexpr int FEWEST_QUIET_FRAMES = 8;
constexpr int MOST_QUIET_FRAMES = 50;  // The mean is over about this many.

float power_of(double db) {
    return static_cast<float>(std::pow(10.0, db / 10));
}

std::int64_t frames_of(int milliseconds) {
    return (milliseconds + 9) / 10;
}

}  // namespace

std::string ActivityOptions::complaint() const {
    // The comparison is also false for NaN, so NaN is refused.
    if (!(level_db >= -90 && level_db <= 0)) {
        return "the activity level must be from -90 to 0 dB";
    }
    if (hang_over_ms < 0 || hang_over_ms > 10'000) {
        return "the activity hang-over must be from 0 to 10000 ms";
    }
    if (minimum_ms < 0 || minimum_ms > 10'000) {
        return "the minimum length of activity must be from 0 to 10000 ms";
    }
    return {};
}

ActivityDetector::ActivityDetector(int sample_rate, const ActivityOptions& options,
                                   std::uint64_t position)
    : options_(options), sample_rate_(sample_rate), origin_(position), position_(position) {
    if (sample_rate < LOWEST_RATE || sample_rate > HIGHEST_RATE) {
        throw std::invalid_argument("no activity detection at " + std::to_string(sample_rate) +
                                    " Hz");
    }
    if (const std::string complaint = options.complaint(); !complaint.empty()) {
        throw std::invalid_argument(complaint);
    }
    hop_ = static_cast<std::size_t>(sample_rate) / 100;
    window_ = (hop_ * 5 / 2 + 1) / 2 * 2;
    transform_ = &Transform::of_size(window_);
    hang_over_ = frames_of(options.hang_over_ms);
    minimum_ = std::max<std::int64_t>(1, frames_of(options.minimum_ms));

    const double bin_hz = static_cast<double>(sample_rate) / static_cast<double>(window_);
    const double high = std::min(HIGHEST_HZ, 0.475 * sample_rate);
    const auto mel = [](double hz) { return std::log(1 + hz / 700); };
    std::size_t least = 1;
    for (std::size_t i = 0; i <= BANDS; ++i) {
        const double at = mel(LOWEST_HZ) + (mel(high) - mel(LOWEST_HZ)) * static_cast<double>(i) /
                                               static_cast<double>(BANDS);
        const double hz = 700 * (std::exp(at) - 1);
        edges_[i] = std::max(least, static_cast<std::size_t>(std::lround(hz / bin_hz)));
        least = edges_[i] + 1;
    }
    double squares = 0;
    shape_.resize(window_);
    for (std::size_t i = 0; i < window_; ++i) {
        shape_[i] = static_cast<float>(
            0.5 - 0.5 * std::cos(2 * 3.14159265358979 * (static_cast<double>(i) + 0.5) /
                                 static_cast<double>(window_)));
        squares += static_cast<double>(shape_[i]) * static_cast<double>(shape_[i]);
    }
    // With this gain, the powers of all bins add up to the mean square of the samples.
    const auto gain = static_cast<float>(std::sqrt(2 / (squares * static_cast<double>(window_))));
    for (float& each : shape_) {
        each *= gain / FULL_SCALE;
    }
    samples_.assign(window_, 0.0F);
    filled_ = (window_ - hop_) / 2;
    noise_.fill(power_of(QUIETEST_DB) / BANDS);
    for (Levels& block : minima_) {
        block.fill(std::numeric_limits<float>::max());
    }
    silent_ = window_;
}

void ActivityDetector::add(const std::int16_t* samples, std::size_t count, ActivityOutput& out) {
    std::array<float, 256> piece;
    while (count > 0) {
        const std::size_t size = std::min(count, piece.size());
        std::copy(samples, samples + size, piece.begin());
        add_piece(piece.data(), size, out);
        samples += size;
        count -= size;
    }
}

void ActivityDetector::skip(std::uint64_t samples, ActivityOutput& out) {
    static constexpr std::array<float, 256> silence{};
    // This much silence ends all activity. Of the rest, whole frames are left out.
    const auto heard = static_cast<std::uint64_t>(sample_rate_) *
                           static_cast<std::uint64_t>(options_.hang_over_ms) / 1000 +
                       static_cast<std::uint64_t>(RECENT * hop_ + 2 * window_);
    std::uint64_t left_out = samples > heard ? (samples - heard) / hop_ : 0;
    samples -= left_out * hop_;
    while (samples > 0) {
        const auto size =
            static_cast<std::size_t>(std::min<std::uint64_t>(samples, silence.size()));
        add_piece(silence.data(), size, out);
        samples -= size;
    }
    frame_ += static_cast<std::int64_t>(left_out);
    position_ += left_out * hop_;
}

void ActivityDetector::add_piece(const float* samples, std::size_t count, ActivityOutput& out) {
    position_ += count;
    while (count > 0) {
        const std::size_t size = std::min(count, window_ - filled_);
        for (std::size_t i = 0; i < size; ++i) {
            silent_ = samples[i] == 0 ? silent_ + 1 : 0;
        }
        silent_ = std::min(silent_, window_);
        std::copy(samples, samples + size, samples_.begin() + static_cast<std::ptrdiff_t>(filled_));
        filled_ += size;
        samples += size;
        count -= size;
        if (filled_ == window_) {
            add_frame(out);
            std::copy(samples_.begin() + static_cast<std::ptrdiff_t>(hop_), samples_.end(),
                      samples_.begin());
            filled_ = window_ - hop_;
        }
    }
}

void ActivityDetector::add_frame(ActivityOutput& out) {
    ++frame_;
    if (silent_ == window_) {
        earlier_ = {};
        all_ = 0;
        decide(0, out);
    } else {
        decide(excess(), out);
    }
}

// Returns how far the sound is above the noise: the mean over the bands, in decibels.
float ActivityDetector::excess() {
    std::array<float, Transform::LONGEST> windowed;
    std::array<float, Transform::LONGEST / 2 + 1> power;
    for (std::size_t i = 0; i < window_; ++i) {
        windowed[i] = samples_[i] * shape_[i];
    }
    transform_->power(windowed.data(), power.data());
    Levels levels;
    float all = 0;
    float sum = 0;
    for (std::size_t band = 0; band < BANDS; ++band) {
        float level = 1e-12F;
        for (std::size_t bin = edges_[band]; bin < edges_[band + 1]; ++bin) {
            level += power[bin];
        }
        levels[band] = level;
        all += level;
        // The levels are averaged over three frames. The decision is about the middle one.
        const float mean = (earlier_[1][band] + 2 * earlier_[0][band] + level) / 4;
        const float db = 10 * std::log10(std::max(1e-12F, mean) / noise_[band]);
        sum += std::clamp(db, 0.0F, MOST_OF_BAND_DB);
    }
    learn(levels);
    earlier_[1] = earlier_[0];
    earlier_[0] = levels;
    const float all_before = std::exchange(all_, all);
    return all_before < power_of(options_.level_db) ? 0 : sum / BANDS;
}

void ActivityDetector::learn(const Levels& levels) {
    static const float quietest = power_of(QUIETEST_DB) / BANDS;
    const bool first = blocks_ == 0 && block_frames_ == 0;
    for (std::size_t band = 0; band < BANDS; ++band) {
        smooth_[band] =
            first ? levels[band] : SMOOTHING * smooth_[band] + (1 - SMOOTHING) * levels[band];
        minima_[0][band] = std::min(minima_[0][band], smooth_[band]);
        float least = minima_[0][band];
        for (std::size_t block = 1; block < BLOCKS; ++block) {
            least = std::min(least, minima_[block][band]);
        }
        // At the beginning too little audio has been heard to estimate the noise.
        if (blocks_ >= static_cast<int>(BLOCKS) / 2) {
            noise_[band] = std::max(quietest, least * LEAST_TO_MEAN);
        }
    }
    if (++block_frames_ == BLOCK_FRAMES) {
        block_frames_ = 0;
        ++blocks_;
        blocks_ = std::min(blocks_, static_cast<int>(BLOCKS));
        std::copy_backward(minima_.begin(), minima_.end() - 1, minima_.end());
        minima_[0].fill(std::numeric_limits<float>::max());
    }
}

void ActivityDetector::decide(float excess_db, ActivityOutput& out) {
    if (frame_ < 0) {
        return;
    }
    const bool faint = excess_db > GOES_ON_DB;
    if (faint) {
        learn_spectrum();
    } else if (begin_ < 0 && silent_ < window_) {
        learn_quiet();  // Zeros are no noise of the line, and what follows them may have noise.
    }
    loud_ = excess_db > BEGINS_DB || (loud_ && faint);
    faint_[static_cast<std::size_t>(frame_) % RECENT] = faint;
    step(loud_, out);
}

void ActivityDetector::step(bool active, ActivityOutput& out) {
    if (active) {
        if (begin_ < 0) {
            begin_ = frame_;
            sound_ = 0;
            // The faint sound just before belongs to the activity.
            const auto least =
                std::max<std::int64_t>({0, end_, frame_ - static_cast<std::int64_t>(RECENT) + 1});
            while (begin_ > least && faint_[static_cast<std::size_t>(begin_ - 1) % RECENT]) {
                --begin_;
                ++sound_;
            }
        }
        last_ = frame_;
        end_ = frame_ + 1;
        evidence_ = 0;
        most_ = 0;
        ++sound_;
        if (!active_ && sound_ >= minimum_) {
            active_ = true;
            out.activity({true, frame_position(begin_), position_});
        }
    } else if (begin_ >= 0) {
        // Noise that is analysed for longer would only move the end by chance.
        if (frame_ - last_ <= hang_over_) {
            extend_end();
        }
        if (frame_ - (end_ - 1) < hang_over_) {
            return;
        }
        if (active_) {
            active_ = false;
            out.activity({false, frame_position(end_), position_});
        }
        begin_ = -1;
    }
}

// The frame that is decided is the middle one of three, so it is the one before the newest.
void ActivityDetector::learn_spectrum() {
    for (std::size_t band = 0; band < BANDS; ++band) {
        const float sound = std::max(0.0F, earlier_[1][band] - noise_of(band));
        spectrum_[band] = SPECTRUM_SMOOTHING * spectrum_[band] + (1 - SPECTRUM_SMOOTHING) * sound;
    }
}

void ActivityDetector::learn_quiet() {
    quiet_frames_ = std::min(quiet_frames_ + 1, MOST_QUIET_FRAMES);
    for (std::size_t band = 0; band < BANDS; ++band) {
        quiet_[band] += (earlier_[1][band] - quiet_[band]) / static_cast<float>(quiet_frames_);
    }
}

// The mean of the noise of a band. noise_ is above it.
float ActivityDetector::noise_of(std::size_t band) const {
    static const float quietest = power_of(QUIETEST_DB) / BANDS;
    return quiet_frames_ < FEWEST_QUIET_FRAMES ? noise_[band]
                                               : std::clamp(quiet_[band], quietest, noise_[band]);
}

// Returns the logarithm of how much more likely the frame is with sound than without.
float ActivityDetector::evidence_of_sound() const {
    const float all = std::accumulate(spectrum_.begin(), spectrum_.end(), 1e-12F);
    const float expected = power_of(options_.level_db + ABOVE_LEVEL_DB);
    float evidence = 0;
    for (std::size_t band = 0; band < BANDS; ++band) {
        const float noise = noise_of(band);
        const float sound = expected * spectrum_[band] / all / noise;
        evidence += earlier_[1][band] / noise * sound / (1 + sound) - std::log1p(sound);
    }
    return evidence;
}

// Moves the end to where it is most likely, given the frames up to this one.
void ActivityDetector::extend_end() {
    const float all = std::accumulate(earlier_[1].begin(), earlier_[1].end(), 0.0F);
    if (all < power_of(options_.level_db)) {
        evidence_ = std::numeric_limits<float>::lowest();
        return;
    }
    evidence_ += evidence_of_sound();
    if (evidence_ > most_) {
        most_ = evidence_;
        end_ = frame_ + 1;
    }
}

void ActivityDetector::finish(ActivityOutput& out) {
    if (active_) {
        out.activity({false, std::min(position_, frame_position(end_)), position_});
    }
    *this = ActivityDetector(sample_rate_, options_, position_);
}

std::uint64_t ActivityDetector::frame_position(std::int64_t frame) const {
    return origin_ + static_cast<std::uint64_t>(frame) * hop_;
}

}  // namespace qv::node::analysis
