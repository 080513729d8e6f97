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
    tally.played(Direction::read, frame(320), nanoseconds(50));
    tally.played(Direction::read, frame(1920), nanoseconds(60));
    tally.played(Direction::write, frame(640), nanoseconds(70));
    EXPECT_EQ(tally.side(Direction::read).frames, 2u);
    EXPECT_EQ(tally.side(Direction::read).bytes, 2240u);
    EXPECT_EQ(tally.side(Direction::read).packets, 3u);
    EXPECT_EQ(tally.side(Direction::write).packets, 1u);
    EXPECT_EQ(tally.frames(), 3u);
}

TEST(FrameTallyTest, AFrameThatNoBugSawBecomesNoPacket) {
    FrameTally tally(true);
    tally.played(Direction::read, frame(320, 0), nanoseconds(50));
    EXPECT_EQ(tally.side(Direction::read).frames, 1u);
    EXPECT_EQ(tally.side(Direction::read).tapped_frames, 0u);
    EXPECT_EQ(tally.side(Direction::read).packets, 0u);
    EXPECT_EQ(tally.handling().count(), 0u);
}

TEST(FrameTallyTest, AFrameThatTheHostWithheldBecomesNoPacket) {
    FrameTally tally(true);
    host::FrameResult withheld = frame(320);
    withheld.given = 0;
    tally.played(Direction::write, withheld, nanoseconds(50));
    EXPECT_EQ(tally.side(Direction::write).tapped_frames, 1u);
    EXPECT_EQ(tally.side(Direction::write).packets, 0u);
}

TEST(FrameTallyTest, AlteredFramesAreCounted) {
    FrameTally tally(true);
    tally.played(Direction::write, frame(320, 1, true), nanoseconds(50));
    EXPECT_EQ(tally.side(Direction::write).altered, 1u);
}

TEST(FrameTallyTest, OnlyPacedFramesCanBeLate) {
    FrameTally paced(true);
    FrameTally free_running(false);
    paced.played(Direction::read, frame(320), nanoseconds(50));
    free_running.played(Direction::read, frame(320), nanoseconds(0));
    EXPECT_EQ(paced.lateness().largest(), nanoseconds(50));
    EXPECT_EQ(free_running.lateness().count(), 0u);
    EXPECT_EQ(free_running.handling().largest(), nanoseconds(10));
}

}  // namespace
}  // namespace qv::tools::call
