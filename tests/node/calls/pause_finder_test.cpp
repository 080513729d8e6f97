#include "node/calls/pause_finder.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

class PauseFinderTest : public testing::Test {
  protected:
    // Sends a frame of 20 ms at 8 kHz. Returns how late it is.
    double frame() {
        const double lag = finder_.lag_s(sent_, 0, 8000, 0);
        finder_.advance(160);
        sent_ += 20'000;
        return lag;
    }

    PauseFinder finder_;
    std::int64_t sent_ = 0;
};

TEST_F(PauseFinderTest, SteadyAudioIsNeverLate) {
    for (int i = 0; i < 1000; ++i) {
        EXPECT_NEAR(frame(), 0, 1e-9);
    }
}

TEST_F(PauseFinderTest, LagIsWhatTheSenderIsLate) {
    frame();
    sent_ += 500'000;
    EXPECT_NEAR(frame(), 0.5, 1e-9);
    EXPECT_NEAR(frame(), 0.5, 1e-9) << "as long as it is not taken for a pause";
}

TEST_F(PauseFinderTest, AudioThatWaitsCounts) {
    frame();
    EXPECT_NEAR(finder_.lag_s(1'020'000, 0, 8000, 4000), 0.5, 1e-9);
}

TEST_F(PauseFinderTest, PauseTakesTheLagAway) {
    frame();
    sent_ += 500'000;
    EXPECT_EQ(finder_.begin_pause(0.5, 8000, 30), 4000u);
    EXPECT_NEAR(frame(), 0, 1e-9);
    EXPECT_EQ(finder_.pauses(), 1u);
    EXPECT_EQ(finder_.position(), 4320u);
}

TEST_F(PauseFinderTest, SenderFasterThanRealTimeIsNotLate) {
    for (int i = 0; i < 100; ++i) {
        EXPECT_LE(frame(), 1e-9);
        sent_ -= 19'000;
    }
}

TEST_F(PauseFinderTest, LongestPauseIsNotExceededAndTheRestNotTakenUpAgain) {
    frame();
    sent_ += 100'000'000;
    EXPECT_EQ(finder_.begin_pause(100, 8000, 30), 30u * 8000);
    EXPECT_NEAR(frame(), 0, 1e-9);
}

TEST_F(PauseFinderTest, ForgedTimesDoNotOverflow) {
    EXPECT_GT(finder_.lag_s(INT64_MAX, INT64_MIN, 8000, 0), 1e12);
    EXPECT_LT(finder_.lag_s(INT64_MIN, INT64_MAX, 8000, 0), -1e12);
}

TEST_F(PauseFinderTest, WithoutARateNothingIsLate) {
    EXPECT_EQ(finder_.lag_s(5'000'000, 0, 0, 0), 0);
}

}  // namespace

}  // namespace qv::node
