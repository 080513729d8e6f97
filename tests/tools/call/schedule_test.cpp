#include "tools/call/schedule.h"

#include <gtest/gtest.h>

#include <set>

namespace qv::tools::call {
namespace {

SchedulePlan plan_of(std::size_t calls, double rate) {
    SchedulePlan plan;
    plan.calls = calls;
    plan.rate = rate;
    return plan;
}

TEST(ScheduleTest, CallsBeginAtTheirRate) {
    const auto calls = plan_calls(plan_of(3, 4));
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].begin, Time(0));
    EXPECT_EQ(calls[1].begin, Time(250'000'000));
    EXPECT_EQ(calls[2].begin, Time(500'000'000));
}

TEST(ScheduleTest, WithoutALengthCallsLastAsLongAsTheirAudio) {
    EXPECT_FALSE(plan_calls(plan_of(1, 1))[0].length_s);
}

TEST(ScheduleTest, RandomLengthsStayInTheirSpanAndDiffer) {
    auto plan = plan_of(100, 10);
    plan.length_s = Span{20, 40};
    std::set<double> lengths;
    for (const CallTimes& times : plan_calls(plan)) {
        EXPECT_GE(*times.length_s, 20);
        EXPECT_LE(*times.length_s, 40);
        lengths.insert(*times.length_s);
    }
    EXPECT_GT(lengths.size(), 90u);
    EXPECT_LT(*lengths.begin(), 22);
    EXPECT_GT(*lengths.rbegin(), 38);
}

TEST(ScheduleTest, AFixedLengthIsExact) {
    auto plan = plan_of(2, 10);
    plan.length_s = Span{7.5, 7.5};
    EXPECT_EQ(plan_calls(plan)[1].length_s, 7.5);
}

TEST(ScheduleTest, TheSameSeedGivesTheSameTimesAndAnotherOthers) {
    auto plan = plan_of(5, 10);
    plan.length_s = Span{1, 2};
    const auto first = plan_calls(plan);
    EXPECT_EQ(plan_calls(plan)[4].length_s, first[4].length_s);
    EXPECT_EQ(plan_calls(plan)[4].phase, first[4].phase);
    plan.seed = 2;
    EXPECT_NE(plan_calls(plan)[4].length_s, first[4].length_s);
}

TEST(ScheduleTest, FramesOfManyCallsFallDueAtDifferentMoments) {
    std::set<Time> phases;
    for (const CallTimes& times : plan_calls(plan_of(50, 100))) {
        EXPECT_GE(times.phase, Time(0));
        EXPECT_LT(times.phase, Time(20'000'000));
        phases.insert(times.phase);
    }
    EXPECT_GT(phases.size(), 45u);
}

TEST(ScheduleTest, ASingleCallBeginsAtOnce) {
    EXPECT_EQ(plan_calls(plan_of(1, 100))[0].phase, Time(0));
}

Step command(std::size_t item) {
    return {Step::Kind::COMMAND, 0, item};
}

TEST(TimerQueueTest, StepsComeInTheOrderOfTheirTimes) {
    TimerQueue timers;
    timers.add(Time(30), command(3));
    timers.add(Time(10), command(1));
    timers.add(Time(20), command(2));
    EXPECT_EQ(timers.next(), Time(10));
    EXPECT_EQ(timers.take(Time(100))->item, 1u);
    EXPECT_EQ(timers.take(Time(100))->item, 2u);
    EXPECT_EQ(timers.take(Time(100))->item, 3u);
    EXPECT_FALSE(timers.take(Time(100)));
    EXPECT_FALSE(timers.next());
}

TEST(TimerQueueTest, StepsOfOneTimeComeInTheOrderInWhichTheyWereAdded) {
    TimerQueue timers;
    for (std::size_t item = 0; item < 20; ++item) {
        timers.add(Time(5), command(item));
    }
    for (std::size_t item = 0; item < 20; ++item) {
        EXPECT_EQ(timers.take(Time(5))->item, item);
    }
}

TEST(TimerQueueTest, AStepIsNotTakenBeforeItIsDue) {
    TimerQueue timers;
    timers.add(Time(10), command(1));
    EXPECT_FALSE(timers.take(Time(9)));
    EXPECT_TRUE(timers.take(Time(10)));
}

}  // namespace
}  // namespace qv::tools::call
