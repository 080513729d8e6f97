#include "tools/node/rate_estimator.h"

#include <gtest/gtest.h>

namespace {

using qv::tools::node::RateEstimator;

class RateEstimatorTest : public testing::Test {
  protected:
    // Sends `frames` frames of `samples`, one each `interval_us`, sent up to `jitter_us`
    // late in turn.
    void send(int frames, std::uint32_t samples, std::int64_t interval_us,
              std::int64_t jitter_us = 0) {
        for (int i = 0; i < frames; ++i) {
            add(offset_, samples, time_ + (i % 3) * jitter_us / 2);
            offset_ += samples;
            time_ += interval_us;
        }
    }

    void add(std::uint32_t offset, std::uint32_t samples, std::int64_t time) {
        estimator_.add(offset, static_cast<std::uint16_t>(samples), time);
    }

    // Sends frames that were held up for so long, all at once.
    void hold_up_and_catch_up(int frames, std::uint32_t samples, std::int64_t interval_us) {
        time_ += frames * interval_us;
        for (int i = 0; i < frames; ++i) {
            add(offset_, samples, time_ + i);
            offset_ += samples;
        }
    }

    RateEstimator estimator_;
    std::uint32_t offset_ = 0;
    std::int64_t time_ = 5'000'000;
};

TEST_F(RateEstimatorTest, UsualRatesAreFound) {
    for (const int rate : {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000}) {
        RateEstimator estimator;
        const auto samples = static_cast<std::uint32_t>(rate) / 50;
        for (std::uint32_t i = 0; i < 60; ++i) {
            estimator.add(i * samples, static_cast<std::uint16_t>(samples), i * 20'000);
        }
        EXPECT_EQ(estimator.rate(), rate);
    }
}

TEST_F(RateEstimatorTest, ASecondIsNeeded) {
    send(50, 160, 20'000);
    EXPECT_FALSE(estimator_.rate().has_value());
    send(1, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, ShortSideGivesABestGuess) {
    send(5, 320, 20'000);
    EXPECT_EQ(estimator_.best_guess(), 16000);
}

TEST_F(RateEstimatorTest, JitterDoesNotMatter) {
    send(60, 160, 20'000, 12'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

// 441 samples are 20 ms at 22050 Hz, and no whole tens of milliseconds at 24000 Hz.
TEST_F(RateEstimatorTest, LengthOfAFrameTellsNeighboursApart) {
    send(60, 441, 18'500);
    EXPECT_EQ(estimator_.rate(), 22050);
}

TEST_F(RateEstimatorTest, ASenderThatIsHeldUpIsUnderstood) {
    for (int i = 0; i < 10; ++i) {
        send(10, 441, 20'000);
        hold_up_and_catch_up(6, 441, 20'000);
    }
    EXPECT_EQ(estimator_.rate(), 22050);
}

TEST_F(RateEstimatorTest, NoRateIsFoundTooEarlyWhileTheSenderIsHeldUp) {
    send(4, 960, 20'000);
    for (int i = 0; i < 20; ++i) {
        hold_up_and_catch_up(12, 960, 20'000);
        EXPECT_EQ(estimator_.rate().value_or(48000), 48000);
    }
    EXPECT_EQ(estimator_.rate(), 48000);
}

TEST_F(RateEstimatorTest, WhatIsSentAtOnceAfterALongHoldUpDoesNotCount) {
    for (int i = 0; i < 4; ++i) {
        send(20, 320, 20'000);
        hold_up_and_catch_up(50, 320, 20'000);
    }
    EXPECT_EQ(estimator_.rate(), 16000);
}

TEST_F(RateEstimatorTest, FramesOfNoUsualLengthNeedAnExactTime) {
    send(60, 150, 18'750);
    EXPECT_EQ(estimator_.rate(), 8000);
    send(600, 150, 20'000);
    EXPECT_FALSE(estimator_.rate().has_value());
}

TEST_F(RateEstimatorTest, LengthOfAFrameSuggestsARateWhateverTheTime) {
    send(100, 441, 1);
    EXPECT_EQ(estimator_.rate_of_20_ms_frames(), 22050);
}

TEST_F(RateEstimatorTest, SplitFramesSuggestARateToo) {
    send(1, 299, 1);  // The first packet was lost.
    for (int i = 0; i < 10; ++i) {
        send(1, 661, 1);
        send(1, 299, 1);
    }
    EXPECT_EQ(estimator_.rate_of_20_ms_frames(), 48000);
}

TEST_F(RateEstimatorTest, AnOddLengthSuggestsNoRate) {
    send(10, 150, 1);
    EXPECT_FALSE(estimator_.rate_of_20_ms_frames().has_value());
}

TEST_F(RateEstimatorTest, PausesAreLeftOut) {
    send(30, 160, 20'000);
    time_ += 3'000'000;
    send(30, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, LossDoesNotMatter) {
    for (int i = 0; i < 30; ++i) {
        send(2, 160, 20'000);
        offset_ += 160;
        time_ += 20'000;
    }
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, SplitFramesDoNotMatter) {
    for (int i = 0; i < 60; ++i) {
        send(1, 661, 5);
        send(1, 299, 19'995);
    }
    EXPECT_EQ(estimator_.rate(), 48000);
}

TEST_F(RateEstimatorTest, SenderFasterThanRealTimeHasNoRate) {
    send(10'000, 160, 100);
    EXPECT_FALSE(estimator_.rate().has_value());
    EXPECT_FALSE(estimator_.best_guess().has_value());
}

TEST_F(RateEstimatorTest, OffsetsMayWrap) {
    offset_ = 0xFFFFFFFF - 1000;
    send(60, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, ForgedTimesAreHarmless) {
    add(0, 160, INT64_MIN);
    add(160, 160, INT64_MAX);
    EXPECT_FALSE(estimator_.best_guess().has_value());
}

}  // namespace
