#include "tools/node/rate_estimator.h"

#include <cmath>

namespace qv::tools::node {

namespace {

constexpr Micros LONGEST_INTERVAL{250'000};  // Frames are shorter; more is a pause.
constexpr Micros ENOUGH{500'000};
constexpr Micros LITTLE{60'000};
constexpr int USUAL_RATES[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 96000};
// Neighbours such as 11025 and 12000 Hz differ by 9 %.
constexpr double LARGEST_ERROR = 0.04;

std::optional<int> nearest_usual_rate(double measured) {
    for (const int rate : USUAL_RATES) {
        if (std::abs(measured - rate) <= rate * LARGEST_ERROR) {
            return rate;
        }
    }
    return std::nullopt;
}

}  // namespace

void RateEstimator::add(std::uint32_t sample_offset, std::int64_t send_time) {
    if (begun_) {
        const std::uint32_t samples = sample_offset - last_offset_;
        if (samples >= 0x80000000U || send_time < last_time_) {
            return;
        }
        // Unsigned: a forged time must not overflow.
        const auto interval =
            static_cast<std::uint64_t>(send_time) - static_cast<std::uint64_t>(last_time_);
        if (interval <= static_cast<std::uint64_t>(LONGEST_INTERVAL.count())) {
            samples_ += samples;
            span_ += Micros(interval);
        }
    }
    begun_ = true;
    last_offset_ = sample_offset;
    last_time_ = send_time;
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
    return nearest_usual_rate(static_cast<double>(samples_) * 1e6 /
                              static_cast<double>(span_.count()));
}

}  // namespace qv::tools::node
