#include "node/calls/wave_gatherer.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node {

namespace {

class WaveGathererTest : public testing::Test {
  protected:
    WaveGathererTest() { gatherer_.set_rate(8000); }

    void add(std::size_t count, std::int16_t sample) {
        while (count > 0) {
            const std::size_t part = std::min(count, gatherer_.room());
            gatherer_.add(part, {sample, sample});
            count -= part;
        }
    }

    // The lowest and the highest sample of each complete column.
    std::string taken() {
        const Wave wave = gatherer_.take(0);
        std::string bytes;
        for (std::size_t i = 0; i < wave.count; ++i) {
            bytes += static_cast<char>(wave.columns[i].lowest);
            bytes += static_cast<char>(wave.columns[i].highest);
        }
        return bytes;
    }

    WaveGatherer gatherer_;
};

TEST_F(WaveGathererTest, AColumnHasTheLowestAndTheHighestSampleOf50Milliseconds) {
    add(100, 256 * 10);
    add(299, -256 * 20);
    EXPECT_EQ(taken(), "");
    add(1, 256 * 5);
    EXPECT_EQ(taken(), (std::string{-20, 10}));
    EXPECT_EQ(taken(), "");
}

TEST_F(WaveGathererTest, FullScaleFitsAByte) {
    add(200, -32768);
    add(200, 32767);
    EXPECT_EQ(taken(), (std::string{-128, 127}));
}

TEST_F(WaveGathererTest, APacketMayReachIntoTheNextColumn) {
    add(380, 0);
    EXPECT_EQ(gatherer_.room(), 20U);
    add(160, 256);
    add(260, 0);
    EXPECT_EQ(taken(), (std::string{0, 1, 0, 1}));
}

TEST_F(WaveGathererTest, SilenceFillsColumns) {
    add(300, 256);
    EXPECT_EQ(gatherer_.add_silence(99), 0U);
    EXPECT_EQ(taken(), "");
    EXPECT_EQ(gatherer_.add_silence(1 + 800 + 10), 2U);
    EXPECT_EQ(taken(), (std::string{0, 1}));
    EXPECT_EQ(gatherer_.room(), 390U);
}

TEST_F(WaveGathererTest, AVeryLongSilenceTakesNoLonger) {
    EXPECT_EQ(gatherer_.add_silence(400ULL * 1'000'000'000), 999'999'999U);
}

TEST_F(WaveGathererTest, AnotherRateKeepsThePartOfTheColumnThatIsFilled) {
    add(200, 256);
    gatherer_.set_rate(16000);
    EXPECT_EQ(gatherer_.room(), 400U);
    add(399, 256);
    EXPECT_EQ(taken(), "");
    add(1, 256);
    EXPECT_EQ(taken(), (std::string{0, 1}));
}

TEST_F(WaveGathererTest, ItHasRoomForMoreThanASecond) {
    for (int column = 1; column < 24; ++column) {
        add(400, 256);
        EXPECT_FALSE(gatherer_.is_full()) << column;
    }
    add(400, 256);
    EXPECT_TRUE(gatherer_.is_full());
    EXPECT_EQ(taken().size(), 48U);
    EXPECT_FALSE(gatherer_.is_full());
}

TEST_F(WaveGathererTest, ARateOfNothingDoesNoHarm) {
    gatherer_.set_rate(0);
    add(3, 256);
    EXPECT_EQ(taken().size(), 6U);
}

}  // namespace

}  // namespace qv::node
