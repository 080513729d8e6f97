#include "node/calls/level_meter.h"

#include <algorithm>
#include <cmath>

namespace qv::node {

namespace {

// For this many samples, the sum of the lower halves of the squares fits 32 bits.
constexpr std::size_t LONGEST_PART = 65'536;

double root_mean(double squares, std::uint64_t count) {
    return count == 0 ? 0 : std::sqrt(squares / static_cast<double>(count));
}

}  // namespace

double decibels(double amplitude) {
    return amplitude <= 0 ? SILENCE_DB : std::max(SILENCE_DB, 20 * std::log10(amplitude / 32768));
}

Extremes LevelMeter::add(const std::int16_t* samples, std::size_t count) {
    if (count == 0) {
        return {};
    }
    Extremes extremes{samples[0], samples[0]};
    while (count > 0) {
        const std::size_t part = std::min(count, LONGEST_PART);
        add_part(samples, part, extremes);
        samples += part;
        count -= part;
    }
    peak_ = std::max({peak_, int{extremes.highest}, -int{extremes.lowest}});
    return extremes;
}

// The lower and upper halves of the squares are summed separately. Each sum then fits 32 bits, and
// the compiler can process many samples at the same time.
void LevelMeter::add_part(const std::int16_t* samples, std::size_t count, Extremes& extremes) {
    std::uint32_t lower_halves = 0;
    std::uint32_t upper_halves = 0;
    std::int16_t highest = extremes.highest;
    std::int16_t lowest = extremes.lowest;
    for (std::size_t i = 0; i < count; ++i) {
        const std::int32_t sample = samples[i];
        const auto square = static_cast<std::uint32_t>(sample * sample);
        lower_halves += square & 0xFFFF;
        upper_halves += square >> 16;
        highest = std::max(highest, samples[i]);
        lowest = std::min(lowest, samples[i]);
    }
    recent_squares_ += lower_halves + (std::uint64_t{upper_halves} << 16);
    recent_count_ += count;
    extremes = {lowest, highest};
}

double LevelMeter::level_db() const {
    return decibels(root_mean(squares(), count()));
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
