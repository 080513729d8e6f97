#include "node/calls/pause_finder.h"

#include <gtest/gtest.h>

namespace {

using qv::node::PauseFinder;

class PauseFinderTest : public testing::Test {
  protected:
    // One frame of 20 ms at 8 kHz; returns the pause before it.
    std::uint64_t frame() {
        const std::uint64_t pause = finder_.pause_before(sent_, 0, 8000, 30);
        finder_.advance(pause + 160);
        sent_ += 20'000;
        return pause;
    }

    PauseFinder finder_;
    std::int64_t sent_ = 0;
};

TEST_F(PauseFinderTest, SteadyAudioHasNoPause) {
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(frame(), 0u);
    }
}

TEST_F(PauseFinderTest, JitterIsNoPause) {
    frame();
    sent_ += 249'000;
    EXPECT_EQ(frame(), 0u);
}

TEST_F(PauseFinderTest, PauseHasItsLengthOnce) {
    frame();
    sent_ += 500'000;
    EXPECT_EQ(frame(), 4000u);
    EXPECT_EQ(frame(), 0u);
    EXPECT_EQ(finder_.pauses(), 1u);
}

TEST_F(PauseFinderTest, SideThatBeginsLaterHasAPauseFirst) {
    sent_ = 2'000'000;
    EXPECT_EQ(frame(), 16000u);
}

TEST_F(PauseFinderTest, SenderFasterThanRealTimeHasNoPause) {
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(frame(), 0u);
        sent_ -= 19'000;
    }
}

TEST_F(PauseFinderTest, ForgedTimeCostsTheLongestPauseAtMost) {
    frame();
    EXPECT_EQ(finder_.pause_before(INT64_MAX, 0, 8000, 30), 30u * 8000);
    EXPECT_EQ(finder_.pause_before(INT64_MIN, INT64_MAX, 8000, 30), 0u);
}

TEST_F(PauseFinderTest, CutPauseIsNotTakenUpAgain) {
    frame();
    sent_ += 100'000'000;
    EXPECT_EQ(frame(), 30u * 8000);
    EXPECT_EQ(frame(), 0u);
}

TEST_F(PauseFinderTest, UnknownRateHasNoPause) {
    EXPECT_EQ(finder_.pause_before(5'000'000, 0, 0, 30), 0u);
}

}  // namespace
