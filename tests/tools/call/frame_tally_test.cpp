#include "tools/call/frame_tally.h"

#include <gtest/gtest.h>

namespace qv::tools::call {
namespace {

using host::Direction;
using std::chrono::nanoseconds;

host::FrameResult frame(std::uint32_t bytes, std::size_t bugs = 1, bool altered = false) {
    return {bytes, bugs, bugs, altered, nanoseconds(10)};
}

TEST(FrameTallyTest, AFrameOfUpTo1322BytesIsOnePacket) {
    EXPECT_EQ(packets_of_frame(320), 1u);
    EXPECT_EQ(packets_of_frame(1322), 1u);
    EXPECT_EQ(packets_of_frame(1324), 2u);
    EXPECT_EQ(packets_of_frame(3840), 3u);
}

TEST(FrameTallyTest, AnEmptyFrameIsAPacketToo) {
    EXPECT_EQ(packets_of_frame(0), 1u);
}

TEST(FrameTallyTest, SidesAreCountedApart) {
    FrameTally tally(true);
    tally.played(Direction::READ, frame(320), nanoseconds(50));
    tally.played(Direction::READ, frame(1920), nanoseconds(60));
    tally.played(Direction::WRITE, frame(640), nanoseconds(70));
    EXPECT_EQ(tally.side(Direction::READ).frames, 2u);
    EXPECT_EQ(tally.side(Direction::READ).bytes, 2240u);
    EXPECT_EQ(tally.side(Direction::READ).packets, 3u);
    EXPECT_EQ(tally.side(Direction::WRITE).packets, 1u);
    EXPECT_EQ(tally.frames(), 3u);
}

TEST(FrameTallyTest, AFrameThatNoBugSawBecomesNoPacket) {
    FrameTally tally(true);
    tally.played(Direction::READ, frame(320, 0), nanoseconds(50));
    EXPECT_EQ(tally.side(Direction::READ).frames, 1u);
    EXPECT_EQ(tally.side(Direction::READ).tapped_frames, 0u);
    EXPECT_EQ(tally.side(Direction::READ).packets, 0u);
    EXPECT_EQ(tally.handling().count(), 0u);
}

TEST(FrameTallyTest, AFrameThatTheHostWithheldBecomesNoPacket) {
    FrameTally tally(true);
    host::FrameResult withheld = frame(320);
    withheld.given = 0;
    tally.played(Direction::WRITE, withheld, nanoseconds(50));
    EXPECT_EQ(tally.side(Direction::WRITE).tapped_frames, 1u);
    EXPECT_EQ(tally.side(Direction::WRITE).packets, 0u);
}

TEST(FrameTallyTest, AlteredFramesAreCounted) {
    FrameTally tally(true);
    tally.played(Direction::WRITE, frame(320, 1, true), nanoseconds(50));
    EXPECT_EQ(tally.side(Direction::WRITE).altered, 1u);
}

TEST(FrameTallyTest, OnlyPacedFramesCanBeLate) {
    FrameTally paced(true);
    FrameTally free_running(false);
    paced.played(Direction::READ, frame(320), nanoseconds(50));
    free_running.played(Direction::READ, frame(320), nanoseconds(0));
    EXPECT_EQ(paced.lateness().largest(), nanoseconds(50));
    EXPECT_EQ(free_running.lateness().count(), 0u);
    EXPECT_EQ(free_running.handling().largest(), nanoseconds(10));
}

}  // namespace
}  // namespace qv::tools::call
