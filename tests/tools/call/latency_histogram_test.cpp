#include "tools/call/latency_histogram.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace qv::tools::call {
namespace {

using std::chrono::nanoseconds;

TEST(LatencyHistogramTest, WithoutValuesEverythingIsZero) {
    const LatencyHistogram histogram;
    EXPECT_EQ(histogram.count(), 0u);
    EXPECT_EQ(histogram.percentile(99), nanoseconds(0));
    EXPECT_EQ(histogram.largest(), nanoseconds(0));
}

TEST(LatencyHistogramTest, SmallValuesAreExact) {
    LatencyHistogram histogram;
    for (int value = 1; value <= 10; ++value) {
        histogram.add(nanoseconds(value));
    }
    EXPECT_EQ(histogram.percentile(50), nanoseconds(5));
    EXPECT_EQ(histogram.percentile(90), nanoseconds(9));
    EXPECT_EQ(histogram.percentile(91), nanoseconds(10));
    EXPECT_EQ(histogram.percentile(100), nanoseconds(10));
}

TEST(LatencyHistogramTest, APercentileIsAtMostAThirtySecondTooLarge) {
    LatencyHistogram histogram;
    for (int value = 1; value <= 1000; ++value) {
        histogram.add(nanoseconds(value * 1000));
    }
    const auto half = histogram.percentile(50).count();
    EXPECT_GE(half, 500'000);
    EXPECT_LE(half, 500'000 + 500'000 / 32);
}

TEST(LatencyHistogramTest, APercentileIsNeverAboveTheLargestValue) {
    LatencyHistogram histogram;
    histogram.add(nanoseconds(1'000'001));
    EXPECT_EQ(histogram.percentile(50), nanoseconds(1'000'001));
    EXPECT_EQ(histogram.largest(), nanoseconds(1'000'001));
}

TEST(LatencyHistogramTest, ValuesBelowZeroCountAsZero) {
    LatencyHistogram histogram;
    histogram.add(nanoseconds(-5));
    EXPECT_EQ(histogram.count(), 1u);
    EXPECT_EQ(histogram.percentile(100), nanoseconds(0));
}

TEST(LatencyHistogramTest, HugeValuesShareTheLastBucket) {
    EXPECT_EQ(LatencyHistogram::bucket_of(1ull << 40), LatencyHistogram::bucket_of(~0ull));
    EXPECT_LT(LatencyHistogram::bucket_of((1ull << 40) - (1ull << 35) - 1),
              LatencyHistogram::bucket_of(1ull << 40));
}

TEST(LatencyHistogramTest, EveryBucketEndsWhereTheNextBegins) {
    for (std::size_t bucket = 0; bucket < 1000; ++bucket) {
        const auto edge = LatencyHistogram::upper_edge(bucket);
        ASSERT_EQ(LatencyHistogram::bucket_of(edge), bucket);
        ASSERT_EQ(LatencyHistogram::bucket_of(edge + 1), bucket + 1);
    }
}

TEST(LatencyHistogramTest, ThreadsAddAtOnceWithoutLosingAValue) {
    LatencyHistogram histogram;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&histogram, i] {
            for (int value = 0; value < 10000; ++value) {
                histogram.add(nanoseconds(value * 4 + i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(histogram.count(), 40000u);
    EXPECT_EQ(histogram.largest(), nanoseconds(39999));
}

}  // namespace
}  // namespace qv::tools::call
