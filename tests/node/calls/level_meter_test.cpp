#include "node/calls/level_meter.h"

#include <gtest/gtest.h>

#include <vector>

namespace qv::node {

namespace {

class LevelMeterTest : public testing::Test {
  protected:
    void hear(std::int16_t sample, std::size_t count = 1) {
        const std::vector<std::int16_t> samples(count, sample);
        meter_.add(samples.data(), samples.size());
    }

    LevelMeter meter_;
};

TEST_F(LevelMeterTest, NothingHeardIsSilence) {
    EXPECT_EQ(meter_.level_db(), -96.0);
    EXPECT_EQ(meter_.peak_db(), -96.0);
    EXPECT_EQ(meter_.take_recent_db(), -96.0);
}

TEST_F(LevelMeterTest, ZerosAreSilence) {
    hear(0, 1000);
    EXPECT_EQ(meter_.level_db(), -96.0);
    EXPECT_EQ(meter_.peak_db(), -96.0);
}

TEST_F(LevelMeterTest, FullScaleSquareWaveIsZeroDecibels) {
    hear(-32768, 100);
    EXPECT_DOUBLE_EQ(meter_.level_db(), 0.0);
    EXPECT_DOUBLE_EQ(meter_.peak_db(), 0.0);
}

TEST_F(LevelMeterTest, HalfTheAmplitudeIsSixDecibelsLess) {
    hear(16384, 50);
    hear(-16384, 50);
    EXPECT_NEAR(meter_.level_db(), -6.02, 0.005);
}

TEST_F(LevelMeterTest, SmallestSampleIsAboveSilence) {
    hear(1);
    EXPECT_NEAR(meter_.level_db(), -90.31, 0.005);
}

TEST_F(LevelMeterTest, PeakIsTheLoudestSampleOfEitherSign) {
    hear(100, 10);
    hear(-3277);
    EXPECT_NEAR(meter_.peak_db(), -20.0, 0.005);
}

TEST_F(LevelMeterTest, RecentLevelForgetsWhatWasTaken) {
    hear(16384, 100);
    EXPECT_NEAR(meter_.take_recent_db(), -6.02, 0.005);
    hear(164, 100);
    EXPECT_NEAR(meter_.take_recent_db(), -46.01, 0.005);
    EXPECT_EQ(meter_.take_recent_db(), -96.0);
}

TEST_F(LevelMeterTest, LevelOfTheCallKeepsWhatWasTaken) {
    hear(16384, 100);
    meter_.take_recent_db();
    hear(0, 100);
    // Half of the power is three decibels less.
    EXPECT_NEAR(meter_.level_db(), -9.03, 0.005);
}

TEST_F(LevelMeterTest, HoursOfFullScaleDoNotOverflow) {
    const std::vector<std::int16_t> second(48'000, -32768);
    for (int i = 0; i < 12 * 60; ++i) {
        meter_.add(second.data(), second.size());
    }
    EXPECT_DOUBLE_EQ(meter_.take_recent_db(), 0.0);
    EXPECT_DOUBLE_EQ(meter_.level_db(), 0.0);
}

TEST_F(LevelMeterTest, ManySamplesAtOnceDoNotOverflow) {
    hear(255, 200'000);
    EXPECT_DOUBLE_EQ(meter_.level_db(), decibels(255));
    LevelMeter loud;
    const std::vector<std::int16_t> samples(200'000, -32768);
    loud.add(samples.data(), samples.size());
    EXPECT_DOUBLE_EQ(loud.level_db(), 0.0);
    EXPECT_DOUBLE_EQ(loud.peak_db(), 0.0);
}

}  // namespace

}  // namespace qv::node
