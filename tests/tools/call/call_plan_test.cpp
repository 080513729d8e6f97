#include "tools/call/call_plan.h"

#include <gtest/gtest.h>

#include "tests/support/names.h"

namespace qv::tools::call {
namespace {

using tests::names;

Audio audio_of(std::uint32_t rate, std::size_t samples, const std::string& name = "a.wav") {
    return {name, rate, std::make_shared<std::vector<std::int16_t>>(samples)};
}

std::string refusal_of(const CallPlan& plan) {
    try {
        check_plan(plan);
    } catch (const PlanError& error) {
        return error.what();
    }
    return "accepted";
}

TEST(CallPlanTest, SidesOfOneRateAreAccepted) {
    CallPlan plan;
    plan.read = audio_of(22050, 10);
    plan.write = audio_of(22050, 20);
    EXPECT_EQ(refusal_of(plan), "accepted");
}

TEST(CallPlanTest, SidesOfTwoRatesAreRefused) {
    CallPlan plan;
    plan.read = audio_of(8000, 10, "caller.wav");
    plan.write = audio_of(16000, 10, "agent.wav");
    EXPECT_TRUE(names(refusal_of(plan), {"caller.wav", "8000", "agent.wav", "16000"}));
}

TEST(CallPlanTest, FramesLargerThanTheHostsAreRefused) {
    CallPlan plan;
    plan.write = audio_of(48000, 10);
    plan.frame_ms = 80;
    EXPECT_EQ(refusal_of(plan), "accepted");
    plan.frame_ms = 120;
    EXPECT_TRUE(names(refusal_of(plan), {"120", "48000", "11520", "8192"}));
}

TEST(CallPlanTest, ASideLastsAsLongAsItsAudioUnlessALengthIsGiven) {
    CallTimes times;
    EXPECT_EQ(samples_of(audio_of(8000, 123), times), 123u);
    times.length_s = 1.5;
    EXPECT_EQ(samples_of(audio_of(8000, 123), times), 12000u);
}

TEST(CallPlanTest, ARunLastsUntilItsLongestCallIsOver) {
    CallPlan plan;
    plan.read = audio_of(8000, 8000);
    plan.write = audio_of(8000, 24000);
    std::vector<CallTimes> calls(2);
    calls[1].begin = time_of_seconds(2);
    EXPECT_DOUBLE_EQ(expected_seconds(plan, calls), 5);
    plan.hangup_s = 1.5;
    EXPECT_DOUBLE_EQ(expected_seconds(plan, calls), 3.5);
}

}  // namespace
}  // namespace qv::tools::call
