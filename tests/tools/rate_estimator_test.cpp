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
            estimator_.add(offset_, time_ + (i % 3) * jitter_us / 2);
            offset_ += samples;
            time_ += interval_us;
        }
    }

    RateEstimator estimator_;
    std::uint32_t offset_ = 0;
    std::int64_t time_ = 5'000'000;
};

TEST_F(RateEstimatorTest, UsualRatesAreFound) {
    for (const int rate : {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000}) {
        RateEstimator estimator;
        for (std::uint32_t i = 0; i < 50; ++i) {
            estimator.add(i * static_cast<std::uint32_t>(rate) / 50, i * 20'000);
        }
        EXPECT_EQ(estimator.rate(), rate);
    }
}

TEST_F(RateEstimatorTest, HalfASecondIsNeeded) {
    send(25, 160, 20'000);
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

TEST_F(RateEstimatorTest, PausesAreLeftOut) {
    send(20, 160, 20'000);
    time_ += 3'000'000;
    send(20, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, LossDoesNotMatter) {
    for (int i = 0; i < 20; ++i) {
        send(2, 160, 20'000);
        offset_ += 160;
        time_ += 20'000;
    }
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, SplitFramesDoNotMatter) {
    for (int i = 0; i < 40; ++i) {
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
    send(40, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, ForgedTimesAreHarmless) {
    estimator_.add(0, INT64_MIN);
    estimator_.add(160, INT64_MAX);
    EXPECT_FALSE(estimator_.best_guess().has_value());
}

}  // namespace
