// Measures the level of one side: since the beginning, and since the last call. Belongs to one
// thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qv::node {

// Decibels relative to a full-scale square wave. SILENCE_DB means digital silence.
constexpr double SILENCE_DB = -96.0;

// The level of an amplitude, with a full scale of 32768.
double decibels(double amplitude);

struct Extremes {
    std::int16_t lowest = 0;
    std::int16_t highest = 0;
};

class LevelMeter {
  public:
    // Returns the extremes of these samples, 0 if there are none.
    Extremes add(const std::int16_t* samples, std::size_t count);

    // Root mean square of the whole call.
    double level_db() const;
    double peak_db() const;

    // The sum of the squares of all samples, and how many they are: two readings give the level in
    // between.
    double squares() const { return squares_ + static_cast<double>(recent_squares_); }
    std::uint64_t count() const { return count_ + recent_count_; }

    // Root mean square since the last call of this function.
    double take_recent_db();

  private:
    void add_part(const std::int16_t* samples, std::size_t count, Extremes& extremes);

    std::uint64_t count_ = 0;
    std::uint64_t recent_count_ = 0;
    double squares_ = 0;  // Up to the last call of that function.
    std::uint64_t recent_squares_ = 0;
    int peak_ = 0;
};

}  // namespace qv::node
