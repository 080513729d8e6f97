#include "node/web/wave_ring.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace qv::node::web {

namespace {

class WaveRingTest : public testing::Test {
  protected:
    void add(WaveColumn column, std::uint64_t silent = 0) { ring_->add({&column, 1, silent}); }

    std::unique_ptr<WaveRing> ring_ = std::make_unique<WaveRing>();
};

TEST_F(WaveRingTest, ColumnsComeBackAsTheyWereAdded) {
    EXPECT_EQ(ring_->end(), 0U);
    add({-20, 10});
    add({-128, 127});
    EXPECT_EQ(ring_->end(), 2U);
    EXPECT_EQ(ring_->columns(0, 2), (std::string{-20, 10, -128, 127}));
    EXPECT_EQ(ring_->columns(1, 2), (std::string{-128, 127}));
}

TEST_F(WaveRingTest, SilentColumnsFollowTheOthers) {
    add({0, 1}, 2);
    EXPECT_EQ(ring_->end(), 3U);
    EXPECT_EQ(ring_->columns(0, 3), (std::string{0, 1, 0, 0, 0, 0}));
}

TEST_F(WaveRingTest, AVeryLongSilenceTakesNoLonger) {
    add({0, 1}, 1'000'000'000);
    EXPECT_EQ(ring_->end(), 1'000'000'001U);
    const std::uint64_t oldest = ring_->end() - WaveRing::READABLE;
    EXPECT_EQ(ring_->columns(oldest, oldest + 1), (std::string{0, 0}));
}

TEST_F(WaveRingTest, OldColumnsStayReadableForAWhile) {
    add({0, 7}, WaveRing::READABLE - 1);
    EXPECT_EQ(ring_->end(), WaveRing::READABLE);
    EXPECT_EQ(ring_->columns(0, 1), (std::string{0, 7}));
}

}  // namespace

}  // namespace qv::node::web
