// A distribution of times: how many fell into each of a fixed set of buckets.
//
// Any number of threads may add at once, without a lock. The buckets grow with the
// value, 32 to each doubling, so that a percentile is at most 1/32 too large.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace qv::tools::call {

class LatencyHistogram {
  public:
    // Values below zero count as zero, those above 18 minutes as the largest bucket.
    void add(std::chrono::nanoseconds value);

    std::uint64_t count() const;
    // Upper edge of the bucket that holds the value which `percent` of all do not exceed,
    // but no more than the largest value; 0 without values.
    std::chrono::nanoseconds percentile(double percent) const;
    std::chrono::nanoseconds largest() const;

    // The bucket of a value and the largest value of a bucket, in nanoseconds.
    static std::size_t bucket_of(std::uint64_t value);
    static std::uint64_t upper_edge(std::size_t bucket);

  private:
    static constexpr unsigned EXACT_BITS = 6;  // below 64 each value has a bucket of its own
    static constexpr unsigned STEP_BITS = 5;   // 32 buckets for each doubling
    static constexpr unsigned LARGEST_BITS = 40;
    static constexpr std::size_t EXACT = std::size_t{1} << EXACT_BITS;
    static constexpr std::size_t STEPS = std::size_t{1} << STEP_BITS;
    static constexpr std::size_t BUCKETS = EXACT + (LARGEST_BITS - EXACT_BITS) * STEPS;

    std::array<std::atomic<std::uint64_t>, BUCKETS> buckets_{};
    std::atomic<std::uint64_t> largest_{0};
};

}  // namespace qv::tools::call
