#include "node/audio/task_outcome.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

using namespace std::chrono_literals;

TEST(TaskOutcomeTest, TaskThatFinishesIsDone) {
    TaskOutcome outcome;
    EXPECT_FALSE(outcome.settled(false));
    EXPECT_TRUE(outcome.go_on());
    EXPECT_TRUE(outcome.go_on());
    EXPECT_FALSE(outcome.settled(false));
    EXPECT_FALSE(outcome.done());
    outcome.finish();
    EXPECT_TRUE(outcome.settled(false));
    EXPECT_TRUE(outcome.settled(true));
    EXPECT_TRUE(outcome.done());
}

TEST(TaskOutcomeTest, TaskThatIsGivenUpTakesNoStepAndIsNeverDone) {
    TaskOutcome outcome;
    EXPECT_TRUE(outcome.settled(true));
    EXPECT_FALSE(outcome.go_on());
    outcome.finish();
    EXPECT_TRUE(outcome.settled(false));
    EXPECT_FALSE(outcome.done());
}

TEST(TaskOutcomeTest, StepThatHasBegunMayEnd) {
    TaskOutcome outcome;
    ASSERT_TRUE(outcome.go_on());
    std::thread task([&outcome] {
        std::this_thread::sleep_for(20ms);
        outcome.finish();
    });
    EXPECT_TRUE(outcome.settled(true));
    EXPECT_TRUE(outcome.done());
    task.join();
}

TEST(TaskOutcomeTest, StepThatHangsIsTheLast) {
    TaskOutcome outcome;
    ASSERT_TRUE(outcome.go_on());
    EXPECT_TRUE(outcome.settled(true));
    EXPECT_FALSE(outcome.go_on());
    EXPECT_FALSE(outcome.done());
}

TEST(TaskOutcomeTest, TaskAndOwnerAgreeWheneverItIsGivenUp) {
    for (int round = 0; round < 2000; ++round) {
        TaskOutcome outcome;
        int steps = 0;
        std::thread task([&] {
            for (int i = 0; i < round % 7; ++i) {
                std::this_thread::yield();
            }
            steps += outcome.go_on() ? 1 : 0;
            outcome.finish();
        });
        ASSERT_TRUE(outcome.settled(true));
        const bool done = outcome.done();
        task.join();
        ASSERT_EQ(steps, done ? 1 : 0);
        ASSERT_EQ(outcome.done(), done);
    }
}

}  // namespace

}  // namespace qv::node
