#include "node/outputs/patience.h"

#include <gtest/gtest.h>

#include <chrono>

namespace qv::node {

namespace {

using namespace std::chrono_literals;

const auto ALWAYS = [] { return true; };
const auto NEVER = [] { return false; };

TEST(PatienceTest, OnlyEndlessPatienceWaitsForRoom) {
    EXPECT_TRUE(Patience(true, ALWAYS).waits_for_room());
    EXPECT_FALSE(Patience(false, ALWAYS).waits_for_room());
}

TEST(PatienceTest, NobodyWaitsForRoomOnceWaitingMustStop) {
    EXPECT_FALSE(Patience(true, NEVER).waits_for_room());
}

TEST(PatienceTest, NobodyWaitsForRoomInAHurry) {
    Patience patience(true, ALWAYS);
    patience.hurry();
    EXPECT_FALSE(patience.waits_for_room());
}

TEST(PatienceTest, WaitForAReaderEndsWhenItIsDone) {
    int rounds = 0;
    Patience(true, ALWAYS).wait_for_reader([&rounds](auto /*until*/) { return ++rounds == 3; });
    EXPECT_EQ(rounds, 3);
}

TEST(PatienceTest, WaitForAReaderEndsWhenWaitingMustStop) {
    int rounds = 0;
    const Patience patience(true, [&rounds] { return rounds < 2; });
    patience.wait_for_reader([&rounds](auto /*until*/) {
        ++rounds;
        return false;
    });
    EXPECT_EQ(rounds, 2);
}

TEST(PatienceTest, EndlessWaitForAReaderOutlastsTheTime) {
    const auto begin = Patience::Clock::now();
    const Patience patience(
        true, [begin] { return Patience::Clock::now() < begin + 60ms; }, 20ms);
    patience.wait_for_reader([](auto /*until*/) { return false; });
    EXPECT_GE(Patience::Clock::now() - begin, 60ms);
}

TEST(PatienceTest, WaitForAReaderEndsWhenTheTimeIsOver) {
    const auto begin = Patience::Clock::now();
    Patience(false, ALWAYS, 20ms).wait_for_reader([](auto /*until*/) { return false; });
    EXPECT_GE(Patience::Clock::now() - begin, 20ms);
}

TEST(PatienceTest, OtherWaitsEndWhenTheyAreDoneWhenWaitingMustStopAndWhenTheTimeIsOver) {
    int rounds = 0;
    Patience(false, ALWAYS).wait(1h, [&rounds] { return ++rounds == 3; });
    EXPECT_EQ(rounds, 3);
    Patience(true, NEVER).wait(1h, [&rounds] {
        ++rounds;
        return false;
    });
    EXPECT_EQ(rounds, 4);
    const auto begin = Patience::Clock::now();
    Patience(true, ALWAYS).wait(20ms, NEVER);
    EXPECT_GE(Patience::Clock::now() - begin, 20ms);
}

}  // namespace

}  // namespace qv::node
