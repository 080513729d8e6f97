#include "node/calls/rate_estimator.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

#include "quorvane/media_packet.h"

namespace qv::node {

namespace {

constexpr Micros LONGEST_INTERVAL{250'000};  // Frames are shorter. A longer interval is a pause.
// A shorter interval means catching up, or a split frame.
constexpr Micros SHORTEST_INTERVAL{5'000};
constexpr Micros ENOUGH{1'000'000};
constexpr Micros LITTLE{60'000};
constexpr int USUAL_RATES[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 96000};

// Neighbours such as 11025 and 12000 Hz differ by 9 %, all others by at least a fourth. If the
// frame length decides between neighbours, a larger error of the measurement is therefore harmless.
constexpr double LARGEST_ERROR = 0.04;
constexpr double LARGEST_ERROR_WITH_FRAME = 0.15;

// The packets at the beginning and the end of the span may have been late by the longest interval.
// For the errors above to hold, the span must be this many times longer.
constexpr int SPAN_IN_INTERVALS = 25;
constexpr int SPAN_IN_INTERVALS_WITH_FRAME = 8;

// `earlier` must not be later. At most an hour, because forged times must not overflow.
Micros limited_time_between(std::int64_t earlier, std::int64_t later) {
    const auto time = static_cast<std::uint64_t>(later) - static_cast<std::uint64_t>(earlier);
    constexpr std::uint64_t pause = 3600'000'000;
    return Micros(std::min(time, pause));
}

double milliseconds(std::uint32_t samples, int rate) {
    return 1000 * seconds_of(samples, rate);
}

// Returns whether a frame of that length lasts 10 to 120 ms, in multiples of `step_ms`. Frames at
// 11025 Hz are rounded to whole samples.
bool goes_with(std::uint32_t frame, int rate, int step_ms) {
    const double length = milliseconds(frame, rate);
    return length > 9.9 && length < 120.1 && std::abs(std::remainder(length, step_ms)) < 0.1;
}

double error_of(double measured, int rate) {
    return std::abs(measured - rate) / rate;
}

// Returns the nearest rate within the error that `suits`, or nullopt.
template <typename Suits>
std::optional<int> nearest_usual_rate(double measured, double largest_error, Suits suits) {
    std::optional<int> nearest;
    for (const int rate : USUAL_RATES) {
        const double error = error_of(measured, rate);
        if (error <= largest_error && suits(rate)) {
            nearest = rate;
            largest_error = error;
        }
    }
    return nearest;
}

// Tries multiples of 10 ms first: 661 samples are 60 ms at 11025 Hz and 55 ms at 12000 Hz.
std::optional<int> rate_by_frame(double measured, std::uint32_t frame) {
    for (const int step_ms : {10, 5}) {
        const auto found = nearest_usual_rate(
            measured, LARGEST_ERROR_WITH_FRAME,
            [frame, step_ms](int rate) { return goes_with(frame, rate, step_ms); });
        if (found) {
            return found;
        }
    }
    return std::nullopt;
}

std::optional<int> rate_by_time(double measured) {
    return nearest_usual_rate(measured, LARGEST_ERROR, [](int) { return true; });
}

}  // namespace

void RateEstimator::add(std::uint32_t sample_offset, std::uint16_t sample_count,
                        std::int64_t send_time) {
    if (begun_ && send_time > last_time_ &&
        limited_time_between(last_time_, send_time) >= SHORTEST_INTERVAL) {
        count_frame();
    }
    count_packet(sample_count);
    if (begun_) {
        const std::uint32_t samples = sample_offset - last_offset_;
        if (samples >= HALF_RANGE || send_time < last_time_) {
            return;
        }
        const Micros interval = limited_time_between(last_time_, send_time);
        if (interval > LONGEST_INTERVAL) {
            catching_up_ = true;
        } else if (!catching_up_ || interval >= SHORTEST_INTERVAL) {
            catching_up_ = false;
            samples_ += samples;
            span_ += interval;
            longest_ = std::max(longest_, interval);
        }
    }
    begun_ = true;
    last_offset_ = sample_offset;
    last_time_ = send_time;
}

// A full packet may be the first part of a split frame.
void RateEstimator::count_packet(std::uint16_t sample_count) {
    unfinished_ += sample_count;
    if (sample_count != LARGEST_PACKET_SAMPLES || unfinished_ >= 20 * LARGEST_PACKET_SAMPLES) {
        count_frame();
    }
}

// A majority vote: a lost packet makes a frame look shorter.
void RateEstimator::count_frame() {
    const std::uint32_t frame = std::exchange(unfinished_, 0);
    if (frame == 0) {
        return;
    }
    if (votes_ == 0) {
        frame_ = frame;
    }
    votes_ = frame == frame_ ? votes_ + 1 : votes_ - 1;
}

std::optional<int> RateEstimator::rate() const {
    if (span_ < std::max(ENOUGH, SPAN_IN_INTERVALS_WITH_FRAME * longest_)) {
        return std::nullopt;
    }
    const auto found = rate_by_frame(measured(), frame_);
    return found || span_ < SPAN_IN_INTERVALS * longest_ ? found : rate_by_time(measured());
}

std::optional<int> RateEstimator::best_guess() const {
    if (span_ < LITTLE) {
        return std::nullopt;
    }
    const auto found = rate_by_frame(measured(), frame_);
    return found ? found : rate_by_time(measured());
}

double RateEstimator::measured() const {
    return static_cast<double>(samples_) * 1e6 / static_cast<double>(span_.count());
}

std::optional<int> RateEstimator::rate_of_20_ms_frames() const {
    const auto* const found =
        std::find_if(std::begin(USUAL_RATES), std::end(USUAL_RATES),
                     [this](int rate) { return std::abs(milliseconds(frame_, rate) - 20) < 0.1; });
    return found != std::end(USUAL_RATES) ? std::optional<int>(*found) : std::nullopt;
}

}  // namespace qv::node
