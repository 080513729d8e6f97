#include "tools/call/side_source.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace qv::tools::call {
namespace {

using Frame = std::vector<std::int16_t>;

class SideSourceTest : public ::testing::Test {
  protected:
    // 4 samples per frame.
    void play(std::vector<std::int16_t> samples, std::uint64_t total,
              Afterwards afterwards = Afterwards::SILENCE) {
        source_ = std::make_unique<SideSource>(
            std::make_shared<std::vector<std::int16_t>>(std::move(samples)), FrameSizes(400, 10),
            total, afterwards, [this] { ++ends_; });
    }

    // All frames to the end.
    std::vector<Frame> frames() {
        std::vector<Frame> all;
        std::uint8_t buffer[100];
        while (const auto size = source_->next(buffer, sizeof(buffer))) {
            Frame frame(*size / 2);
            std::memcpy(frame.data(), buffer, *size);
            all.push_back(frame);
        }
        return all;
    }

    std::unique_ptr<SideSource> source_;
    int ends_ = 0;
};

TEST_F(SideSourceTest, TheLastFrameHoldsWhatIsLeft) {
    play({1, 2, 3, 4, 5, 6}, 6);
    EXPECT_EQ(frames(), (std::vector<Frame>{{1, 2, 3, 4}, {5, 6}}));
}

TEST_F(SideSourceTest, ACallLongerThanItsAudioIsFilledWithSilence) {
    play({1, 2, 3}, 7);
    EXPECT_EQ(frames(), (std::vector<Frame>{{1, 2, 3, 0}, {0, 0, 0}}));
}

TEST_F(SideSourceTest, ARepeatedFileGoesOnWithoutAGap) {
    play({1, 2, 3}, 8, Afterwards::REPEAT);
    EXPECT_EQ(frames(), (std::vector<Frame>{{1, 2, 3, 1}, {2, 3, 1, 2}}));
}

TEST_F(SideSourceTest, ACallShorterThanItsAudioIsCut) {
    play({1, 2, 3, 4, 5, 6}, 5);
    EXPECT_EQ(frames(), (std::vector<Frame>{{1, 2, 3, 4}, {5}}));
}

TEST_F(SideSourceTest, TheEndIsReportedOnceAndNotBefore) {
    play({1, 2, 3, 4}, 4);
    std::uint8_t buffer[100];
    EXPECT_EQ(source_->next(buffer, sizeof(buffer)), 8u);
    EXPECT_EQ(ends_, 0);
    EXPECT_EQ(source_->next(buffer, sizeof(buffer)), std::nullopt);
    EXPECT_EQ(ends_, 1);
}

TEST_F(SideSourceTest, AFrameIsNeverLargerThanItsRoom) {
    play({1, 2, 3, 4, 5, 6}, 6);
    std::uint8_t buffer[5];
    EXPECT_EQ(source_->next(buffer, sizeof(buffer)), 4u);
}

TEST_F(SideSourceTest, ASideNeedsSamples) {
    EXPECT_THROW(play({}, 4), std::invalid_argument);
}

TEST(FrameSizesTest, AWholeNumberOfSamplesIsTheSameInEachFrame) {
    const FrameSizes sizes(8000, 20);
    EXPECT_EQ(sizes.samples(0), 160u);
    EXPECT_EQ(sizes.samples(12345), 160u);
}

TEST(FrameSizesTest, FramesOfTwoSizesKeepTheRate) {
    const FrameSizes sizes(22050, 10);  // 220.5 samples
    EXPECT_EQ(sizes.samples(0), 220u);
    EXPECT_EQ(sizes.samples(1), 221u);
    std::uint64_t second = 0;
    for (std::uint64_t frame = 0; frame < 100; ++frame) {
        second += sizes.samples(frame);
    }
    EXPECT_EQ(second, 22050u);
}

}  // namespace
}  // namespace qv::tools::call
