#include "node/audio/level_meter.h"

#include <algorithm>
#include <cmath>

namespace qv::node {

namespace {

double root_mean(double squares, std::uint64_t count) {
    return count == 0 ? 0 : std::sqrt(squares / static_cast<double>(count));
}

}  // namespace

double decibels(double amplitude) {
    return amplitude <= 0 ? SILENCE_DB : std::max(SILENCE_DB, 20 * std::log10(amplitude / 32768));
}

void LevelMeter::add(const std::int16_t* samples, std::size_t count) {
    std::uint64_t squares = 0;
    int highest = 0;
    int lowest = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const int sample = samples[i];
        squares += static_cast<std::uint32_t>(sample * sample);
        highest = std::max(highest, sample);
        lowest = std::min(lowest, sample);
    }
    recent_squares_ += squares;
    recent_count_ += count;
    peak_ = std::max({peak_, highest, -lowest});
}

double LevelMeter::level_db() const {
    return decibels(
        root_mean(squares_ + static_cast<double>(recent_squares_), count_ + recent_count_));
}

double LevelMeter::peak_db() const {
    return decibels(peak_);
}

double LevelMeter::take_recent_db() {
    const double level = decibels(root_mean(static_cast<double>(recent_squares_), recent_count_));
    squares_ += static_cast<double>(recent_squares_);
    count_ += recent_count_;
    recent_squares_ = 0;
    recent_count_ = 0;
    return level;
}

}  // namespace qv::node
