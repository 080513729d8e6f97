#include "tools/node/rate_estimator.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

#include "module/media_packet.h"

namespace qv::tools::node {

namespace {

constexpr Micros LONGEST_INTERVAL{250'000};  // Frames are shorter; more is a pause.
constexpr Micros SHORTEST_INTERVAL{5'000};   // Less is catching up, or a split frame.
constexpr Micros ENOUGH{1'000'000};
constexpr Micros LITTLE{60'000};
constexpr std::uint32_t LARGEST_PACKET = media::MAX_AUDIO_SIZE / 2;
constexpr int USUAL_RATES[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 96000};

// Of all rates neighbours such as 11025 and 12000 Hz differ by 9 %; of those that go with
// the length of a frame, by a third.
constexpr double LARGEST_ERROR = 0.04;
constexpr double LARGEST_ERROR_WITH_FRAME = 0.15;

double milliseconds(std::uint32_t samples, int rate) {
    return samples * 1000.0 / rate;
}

// Whether frames of that length last whole tens of milliseconds. At 11025 Hz they are half
// a sample off.
bool goes_with(std::uint32_t frame, int rate) {
    const double tens = milliseconds(frame, rate) / 10;
    return tens > 0.9 && tens < 12.1 && std::abs(tens - std::round(tens)) < 0.01;
}

std::optional<int> nearest_usual_rate(double measured, std::uint32_t frame) {
    const bool frame_tells = std::any_of(std::begin(USUAL_RATES), std::end(USUAL_RATES),
                                         [frame](int rate) { return goes_with(frame, rate); });
    const double error = frame_tells ? LARGEST_ERROR_WITH_FRAME : LARGEST_ERROR;
    for (const int rate : USUAL_RATES) {
        if ((!frame_tells || goes_with(frame, rate)) && std::abs(measured - rate) <= rate * error) {
            return rate;
        }
    }
    return std::nullopt;
}

}  // namespace

void RateEstimator::add(std::uint32_t sample_offset, std::uint16_t sample_count,
                        std::int64_t send_time) {
    count_frame(sample_count);
    if (begun_) {
        const std::uint32_t samples = sample_offset - last_offset_;
        if (samples >= 0x80000000U || send_time < last_time_) {
            return;
        }
        // Unsigned: a forged time must not overflow.
        const auto interval =
            static_cast<std::uint64_t>(send_time) - static_cast<std::uint64_t>(last_time_);
        if (interval > static_cast<std::uint64_t>(LONGEST_INTERVAL.count())) {
            catching_up_ = true;
        } else if (!catching_up_ || Micros(interval) >= SHORTEST_INTERVAL) {
            catching_up_ = false;
            samples_ += samples;
            span_ += Micros(interval);
        }
    }
    begun_ = true;
    last_offset_ = sample_offset;
    last_time_ = send_time;
}

// A packet that is full is followed by the rest of its frame. The majority counts: a lost
// packet makes a frame look shorter.
void RateEstimator::count_frame(std::uint16_t sample_count) {
    unfinished_ += sample_count;
    if (sample_count == LARGEST_PACKET && unfinished_ < 20 * LARGEST_PACKET) {
        return;
    }
    const std::uint32_t frame = std::exchange(unfinished_, 0);
    if (votes_ == 0) {
        frame_ = frame;
    }
    votes_ = frame == frame_ ? votes_ + 1 : votes_ - 1;
}

std::optional<int> RateEstimator::rate() const {
    return rate_over(ENOUGH);
}

std::optional<int> RateEstimator::best_guess() const {
    return rate_over(LITTLE);
}

std::optional<int> RateEstimator::rate_over(Micros least) const {
    if (span_ < least) {
        return std::nullopt;
    }
    return nearest_usual_rate(
        static_cast<double>(samples_) * 1e6 / static_cast<double>(span_.count()), frame_);
}

std::optional<int> RateEstimator::rate_of_20_ms_frames() const {
    const auto* const found =
        std::find_if(std::begin(USUAL_RATES), std::end(USUAL_RATES),
                     [this](int rate) { return std::abs(milliseconds(frame_, rate) - 20) < 0.1; });
    return found != std::end(USUAL_RATES) ? std::optional<int>(*found) : std::nullopt;
}

}  // namespace qv::tools::node
