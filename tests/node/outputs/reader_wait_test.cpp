#include "node/outputs/reader_wait.h"

#include <gtest/gtest.h>

#include <chrono>

namespace qv::node {

namespace {

using namespace std::chrono_literals;

TEST(ReaderWaitTest, OnlyAPatientOneWaitsForRoom) {
    EXPECT_TRUE(ReaderWait(true, [] { return true; }).waits_for_room());
    EXPECT_FALSE(ReaderWait(false, [] { return true; }).waits_for_room());
}

TEST(ReaderWaitTest, NobodyWaitsForRoomOnceWaitingMustStop) {
    EXPECT_FALSE(ReaderWait(true, [] { return false; }).waits_for_room());
}

TEST(ReaderWaitTest, NobodyWaitsForRoomInAHurry) {
    ReaderWait wait(true, [] { return true; });
    wait.hurry();
    EXPECT_FALSE(wait.waits_for_room());
}

TEST(ReaderWaitTest, WaitEndsWhenItIsDone) {
    int rounds = 0;
    ReaderWait(true, [] { return true; }).wait_until([&rounds](auto /*until*/) {
        return ++rounds == 3;
    });
    EXPECT_EQ(rounds, 3);
}

TEST(ReaderWaitTest, WaitEndsWhenWaitingMustStop) {
    int rounds = 0;
    ReaderWait(true, [&rounds] { return rounds < 2; }).wait_until([&rounds](auto /*until*/) {
        ++rounds;
        return false;
    });
    EXPECT_EQ(rounds, 2);
}

TEST(ReaderWaitTest, ImpatientWaitEndsWhenTheTimeIsOver) {
    const auto begin = ReaderWait::Clock::now();
    ReaderWait(
        false, [] { return true; }, 20ms)
        .wait_until([](auto /*until*/) { return false; });
    EXPECT_GE(ReaderWait::Clock::now() - begin, 20ms);
}

TEST(ReaderWaitTest, MomentIsShort) {
    const auto now = ReaderWait::Clock::now();
    EXPECT_GT(ReaderWait::next_moment(), now);
    EXPECT_LT(ReaderWait::next_moment(), now + 30s);
}

}  // namespace

}  // namespace qv::node
