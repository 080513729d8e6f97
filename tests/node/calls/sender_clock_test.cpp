#include "node/calls/sender_clock.h"

#include <gtest/gtest.h>

#include <limits>

namespace qv::node {

namespace {

using namespace std::chrono_literals;

constexpr std::int64_t SECOND = 1'000'000;

TEST(SenderClockTest, NothingIsFarAheadBeforeTheFirstPacket) {
    EXPECT_FALSE(SenderClock().is_far_ahead(std::numeric_limits<std::int64_t>::max(), 1s));
}

TEST(SenderClockTest, GoesOnAsTimePasses) {
    SenderClock clock;
    clock.note(50 * SECOND, 1s);
    EXPECT_EQ(clock.at(4s), 53 * SECOND);
    EXPECT_FALSE(clock.is_far_ahead(55 * SECOND, 4s));
    EXPECT_TRUE(clock.is_far_ahead(55 * SECOND + 1, 4s));
    EXPECT_FALSE(clock.is_far_ahead(0, 4s));
}

TEST(SenderClockTest, OneForgedPacketDoesNotMoveIt) {
    SenderClock clock;
    clock.note(50 * SECOND, 1s);
    clock.note(std::numeric_limits<std::int64_t>::max(), 1s);
    EXPECT_EQ(clock.at(1s), 50 * SECOND);
    clock.note(std::numeric_limits<std::int64_t>::min(), 1s);
    EXPECT_EQ(clock.at(1s), 50 * SECOND);
}

TEST(SenderClockTest, LeapThatTheNextPacketConfirmsIsFollowed) {
    SenderClock clock;
    clock.note(50 * SECOND, 1s);
    clock.note(350 * SECOND, 1s);
    clock.note(350 * SECOND + 20'000, 1s);
    EXPECT_EQ(clock.at(1s), 350 * SECOND + 20'000);
}

TEST(SenderClockTest, SenderInStepWithTimeKeepsRealTime) {
    SenderClock clock;
    clock.note(50 * SECOND, 1s);
    EXPECT_FALSE(clock.keeps_real_time()) << "it has not lasted long enough";
    clock.note(53 * SECOND, 4s);
    EXPECT_TRUE(clock.keeps_real_time());
}

TEST(SenderClockTest, SenderFasterThanTimeDoesNotKeepRealTime) {
    SenderClock clock;
    for (int second = 0; second < 10; ++second) {
        clock.note(50 * SECOND + 2 * second * SECOND, 1s + second * 1s);
    }
    EXPECT_FALSE(clock.keeps_real_time());
}

}  // namespace

}  // namespace qv::node
