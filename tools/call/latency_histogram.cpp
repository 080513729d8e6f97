#include "tools/call/latency_histogram.h"

#include <algorithm>
#include <cmath>

namespace qv::tools::call {

void LatencyHistogram::add(std::chrono::nanoseconds value) {
    const auto nanoseconds = static_cast<std::uint64_t>(std::max<std::int64_t>(value.count(), 0));
    buckets_[bucket_of(nanoseconds)].fetch_add(1, std::memory_order_relaxed);
    std::uint64_t largest = largest_.load(std::memory_order_relaxed);
    while (nanoseconds > largest &&
           !largest_.compare_exchange_weak(largest, nanoseconds, std::memory_order_relaxed)) {
    }
}

std::uint64_t LatencyHistogram::count() const {
    std::uint64_t sum = 0;
    for (const auto& bucket : buckets_) {
        sum += bucket.load(std::memory_order_relaxed);
    }
    return sum;
}

std::chrono::nanoseconds LatencyHistogram::percentile(double percent) const {
    const auto wanted =
        static_cast<std::uint64_t>(std::ceil(static_cast<double>(count()) * percent / 100));
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < BUCKETS; ++bucket) {
        seen += buckets_[bucket].load(std::memory_order_relaxed);
        if (seen > 0 && seen >= wanted) {
            return std::min(std::chrono::nanoseconds(upper_edge(bucket)), largest());
        }
    }
    return largest();
}

std::chrono::nanoseconds LatencyHistogram::largest() const {
    return std::chrono::nanoseconds(largest_.load(std::memory_order_relaxed));
}

std::size_t LatencyHistogram::bucket_of(std::uint64_t value) {
    if (value < EXACT) {
        return value;
    }
    const auto top = static_cast<unsigned>(63 - __builtin_clzll(value));  // highest bit set
    if (top >= LARGEST_BITS) {
        return BUCKETS - 1;
    }
    const std::size_t step = (value >> (top - STEP_BITS)) & (STEPS - 1);
    return EXACT + (top - EXACT_BITS) * STEPS + step;
}

std::uint64_t LatencyHistogram::upper_edge(std::size_t bucket) {
    if (bucket < EXACT) {
        return bucket;
    }
    const std::size_t top = EXACT_BITS + (bucket - EXACT) / STEPS;
    const std::size_t step = (bucket - EXACT) % STEPS;
    return ((STEPS + step + 1) << (top - STEP_BITS)) - 1;
}

}  // namespace qv::tools::call
