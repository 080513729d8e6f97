#include "node/calls/rate_change_finder.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

using Finding = RateChangeFinder::Finding;

// A side at 8000 Hz with frames of 20 ms, which the finder has learned.
class RateChangeFinderTest : public testing::Test {
  protected:
    RateChangeFinderTest() { frames(10, 160); }

    Finding frame(std::uint16_t samples, std::int64_t duration_us = 20'000) {
        time_ += duration_us;
        return finder_.add(samples, time_, 8000);
    }
    Finding frames(int count, std::uint16_t samples, std::int64_t duration_us = 20'000) {
        Finding latest = Finding::USUAL;
        for (int i = 0; i < count; ++i) {
            latest = frame(samples, duration_us);
        }
        return latest;
    }

    RateChangeFinder finder_;
    std::int64_t time_ = 7'000'000;
};

TEST_F(RateChangeFinderTest, FramesAsBeforeRaiseNoDoubt) {
    EXPECT_EQ(frames(1000, 160), Finding::USUAL);
}

TEST_F(RateChangeFinderTest, FrameOfAnotherLengthRaisesADoubtThatTwoUsualOnesEnd) {
    EXPECT_EQ(frame(320), Finding::DOUBT);
    EXPECT_EQ(frame(160), Finding::DOUBT);
    EXPECT_EQ(frame(160), Finding::SETTLED);
    EXPECT_FALSE(finder_.found().has_value());
    EXPECT_EQ(frame(160), Finding::USUAL);
}

TEST_F(RateChangeFinderTest, OneUsualFrameEndsNoDoubt) {
    frame(320);
    frame(160);
    EXPECT_EQ(frame(320), Finding::DOUBT);
    EXPECT_EQ(frame(160), Finding::DOUBT);
}

TEST_F(RateChangeFinderTest, ASecondShowsTheNewRate) {
    EXPECT_EQ(frames(50, 320), Finding::DOUBT);
    EXPECT_EQ(frame(320), Finding::SETTLED);
    EXPECT_EQ(finder_.found(), 16000);
}

TEST_F(RateChangeFinderTest, LengthThatHasBeenLookedIntoRaisesNoFurtherDoubt) {
    EXPECT_EQ(frames(26, 320, 40'000), Finding::SETTLED);
    EXPECT_EQ(finder_.found(), 8000);
    EXPECT_EQ(frames(10, 160), Finding::USUAL);
    EXPECT_EQ(frames(10, 320, 40'000), Finding::USUAL);
}

TEST_F(RateChangeFinderTest, FramesFasterThanRealTimeAreHeldForABoundedNumberOfPackets) {
    EXPECT_EQ(frames(RateChangeFinder::MOST_HELD - 1, 320, 100), Finding::DOUBT);
    EXPECT_EQ(frame(320, 100), Finding::SETTLED);
    EXPECT_FALSE(finder_.found().has_value());
}

TEST_F(RateChangeFinderTest, FrameAfterAGapMayLackItsBeginning) {
    finder_.gap(100);
    EXPECT_EQ(frame(60), Finding::USUAL);
    EXPECT_EQ(frame(60), Finding::DOUBT);
}

TEST_F(RateChangeFinderTest, LittleThatWasMeasuredShowsNoRateAtTheEnd) {
    frames(10, 320);
    finder_.settle(8000);
    EXPECT_FALSE(finder_.in_doubt());
    EXPECT_FALSE(finder_.found().has_value());
}

TEST_F(RateChangeFinderTest, FifthOfASecondShowsTheRateAtTheEnd) {
    frames(11, 320);
    finder_.settle(8000);
    EXPECT_EQ(finder_.found(), 16000);
}

TEST_F(RateChangeFinderTest, ForgedTimesDoNotOverflow) {
    for (const std::int64_t time : {INT64_MIN, INT64_MAX, std::int64_t{0}, INT64_MIN + 1}) {
        for (int i = 0; i < 10; ++i) {
            finder_.add(320, time + (time == INT64_MAX ? -i : i), 8000);
        }
    }
    finder_.settle(8000);
    EXPECT_FALSE(finder_.in_doubt());
}

}  // namespace

}  // namespace qv::node
