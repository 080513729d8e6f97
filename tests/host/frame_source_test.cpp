#include "host/frame_source.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

namespace qv::host {
namespace {

using Frame = std::vector<std::int16_t>;

Samples samples(Frame values) {
    return std::make_shared<const std::vector<std::int16_t>>(std::move(values));
}

// The next frames of the source, at most `most`, into a buffer of `capacity` bytes.
std::vector<Frame> frames_of(FrameSource& source, std::size_t most, std::uint32_t capacity = 100) {
    std::vector<Frame> frames;
    std::uint8_t buffer[100];
    while (frames.size() < most) {
        std::memset(buffer, 0xEE, sizeof buffer);
        const auto size = source.next(buffer, capacity);
        if (!size.has_value()) {
            break;
        }
        EXPECT_EQ(*size % 2, 0u);
        Frame frame(*size / 2);
        std::memcpy(frame.data(), buffer, *size);
        frames.push_back(frame);
    }
    return frames;
}

TEST(FrameSourceTest, TheLastFrameOfSamplesMayBeShorter) {
    const auto source = play(samples({1, 2, 3, 4, 5}), 2);
    EXPECT_EQ(frames_of(*source, 9), (std::vector<Frame>{{1, 2}, {3, 4}, {5}}));
    EXPECT_TRUE(frames_of(*source, 9).empty());
}

TEST(FrameSourceTest, RepeatedSamplesSkipAnIncompleteLastFrame) {
    const auto source = play(samples({1, 2, 3, 4, 5}), 2, Repeat::FOREVER);
    EXPECT_EQ(frames_of(*source, 5), (std::vector<Frame>{{1, 2}, {3, 4}, {1, 2}, {3, 4}, {1, 2}}));
}

TEST(FrameSourceTest, RepeatedSamplesOfLessThanAFrameArePlayedOnce) {
    const auto source = play(samples({1}), 2, Repeat::FOREVER);
    EXPECT_EQ(frames_of(*source, 9), (std::vector<Frame>{{1}}));
}

TEST(FrameSourceTest, NoSampleIsLostIfTheBufferIsShorterThanAFrame) {
    const auto source = play(samples({1, 2, 3, 4, 5}), 4);
    EXPECT_EQ(frames_of(*source, 9, 5), (std::vector<Frame>{{1, 2}, {3, 4}, {5}}));
}

TEST(FrameSourceTest, SamplesThatCannotBePlayedAreRefused) {
    EXPECT_THROW(play(nullptr, 2), std::invalid_argument);
    EXPECT_THROW(play(samples({1}), 0), std::invalid_argument);
}

TEST(FrameSourceTest, SilenceHasAsManyFramesAsGiven) {
    const auto source = play_silence(2, 3);
    EXPECT_EQ(frames_of(*source, 9), (std::vector<Frame>{{0, 0, 0}, {0, 0, 0}}));
}

TEST(FrameSourceTest, SilenceDoesNotExceedTheBuffer) {
    const auto source = play_silence(1, 3);
    EXPECT_EQ(frames_of(*source, 9, 4), (std::vector<Frame>{{0, 0}}));
}

}  // namespace
}  // namespace qv::host
