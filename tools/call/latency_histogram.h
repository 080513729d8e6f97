// A distribution of times: the number of values in each of a fixed set of buckets.
//
// Any number of threads may add at the same time, without a lock. The buckets grow with the
// value, 32 per doubling, so that a percentile is at most 1/32 too large.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace qv::tools::call {

class LatencyHistogram {
  public:
    // Values below zero count as zero, those above 18 minutes in the largest bucket.
    void add(std::chrono::nanoseconds value);

    std::uint64_t count() const;
    // The upper edge of the bucket with the value that `percent` of all values do not exceed,
    // limited to the largest value; 0 without values.
    std::chrono::nanoseconds percentile(double percent) const;
    std::chrono::nanoseconds largest() const;

    // The bucket of a value and the largest value of a bucket, in nanoseconds.
    static std::size_t bucket_of(std::uint64_t value);
    static std::uint64_t upper_edge(std::size_t bucket);

  private:
    static constexpr unsigned EXACT_BITS = 6;  // each value below 64 has its own bucket
    static constexpr unsigned STEP_BITS = 5;   // 32 buckets per doubling
    static constexpr unsigned LARGEST_BITS = 40;
    static constexpr std::size_t EXACT = std::size_t{1} << EXACT_BITS;
    static constexpr std::size_t STEPS = std::size_t{1} << STEP_BITS;
    static constexpr std::size_t BUCKETS = EXACT + (LARGEST_BITS - EXACT_BITS) * STEPS;

    std::array<std::atomic<std::uint64_t>, BUCKETS> buckets_{};
    std::atomic<std::uint64_t> largest_{0};
};

}  // namespace qv::tools::call
