#include "node/web/wave_ring.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace qv::node::web {

namespace {

class WaveRingTest : public testing::Test {
  protected:
    WaveRingTest() { gatherer_.set_rate(8000); }

    void add(std::size_t count, std::int16_t sample) {
        const std::vector<std::int16_t> samples(count, sample);
        if (!gatherer_.add_within(samples.size(), sample, sample)) {
            gatherer_.add(samples.data(), samples.size(), *ring_);
        }
    }

    // The number of columns.
    std::uint64_t end() {
        gatherer_.flush(*ring_);
        return ring_->end();
    }

    void add_silence(std::uint64_t samples) { gatherer_.add_silence(samples, *ring_); }

    std::string column(std::uint64_t number) const { return ring_->columns(number, number + 1); }

    WaveGatherer gatherer_;
    std::unique_ptr<WaveRing> ring_ = std::make_unique<WaveRing>();
};

TEST_F(WaveRingTest, AColumnHasTheLowestAndTheHighestSampleOf50Milliseconds) {
    add(100, 256 * 10);
    add(299, -256 * 20);
    EXPECT_EQ(end(), 0U);
    add(1, 256 * 5);
    EXPECT_EQ(end(), 1U);
    EXPECT_EQ(column(0), (std::string{-20, 10}));
}

TEST_F(WaveRingTest, FullScaleFitsAByte) {
    add(200, -32768);
    add(200, 32767);
    EXPECT_EQ(end(), 1U);
    EXPECT_EQ(column(0), (std::string{-128, 127}));
}

TEST_F(WaveRingTest, APacketMayReachIntoTheNextColumn) {
    add(380, 0);
    add(160, 256);
    add(260, 0);
    EXPECT_EQ(end(), 2U);
    EXPECT_EQ(column(0), (std::string{0, 1}));
    EXPECT_EQ(column(1), (std::string{0, 1}));
}

TEST_F(WaveRingTest, APacketMayBeLongerThanAColumn) {
    add(1000, 256);
    EXPECT_EQ(end(), 2U);
}

TEST_F(WaveRingTest, SilenceFillsColumns) {
    add(300, 256);
    add_silence(100 + 800);
    EXPECT_EQ(end(), 3U);
    EXPECT_EQ(ring_->columns(0, 3), (std::string{0, 1, 0, 0, 0, 0}));
}

TEST_F(WaveRingTest, AVeryLongSilenceTakesNoLonger) {
    add(400, 256);
    add_silence(400ULL * 1'000'000'000);
    EXPECT_EQ(end(), 1'000'000'001U);
    EXPECT_EQ(column(end() - WaveRing::READABLE), (std::string{0, 0}));
}

TEST_F(WaveRingTest, OldColumnsStayReadableForAWhile) {
    add(400, 256 * 7);
    add_silence(400 * (WaveRing::READABLE - 1));
    EXPECT_EQ(end(), WaveRing::READABLE);
    EXPECT_EQ(column(0), (std::string{0, 7}));
}

TEST_F(WaveRingTest, AnotherRateKeepsThePartOfTheColumnThatIsFilled) {
    add(200, 256);
    gatherer_.set_rate(16000);
    add(399, 256);
    EXPECT_EQ(end(), 0U);
    add(1, 256);
    EXPECT_EQ(end(), 1U);
}

TEST_F(WaveRingTest, ColumnsAreGatheredBeforeTheyArePassedOn) {
    add(4 * 400, 256);
    EXPECT_EQ(ring_->end(), 0U);
    add(400, 256);
    EXPECT_EQ(ring_->end(), 5U);
}

TEST_F(WaveRingTest, ARateOfNothingDoesNoHarm) {
    gatherer_.set_rate(0);
    add(3, 256);
    EXPECT_EQ(end(), 3U);
}

}  // namespace

}  // namespace qv::node::web
