// The driver on an embedded host without a module. What is planned must happen, and be reported and
// counted.
#include "tools/call/driver.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace qv::tools::call {
namespace {

class Events : public RunListener {
  public:
    void call_begun(Time, std::size_t call, const std::string& uuid) override {
        add("begun " + std::to_string(call));
        uuids.push_back(uuid);
    }
    void call_tapped(Time, std::size_t call, bool tapped) override {
        add((tapped ? "tapped " : "untapped ") + std::to_string(call));
    }
    void command_run(Time, std::size_t call, const std::string& command,
                     const std::string&) override {
        add("ran " + std::to_string(call) + " " + command);
    }
    void command_missed(Time, std::size_t call, const std::string& command) override {
        add("missed " + std::to_string(call) + " " + command);
    }
    void call_over(Time, std::size_t call) override { add("over " + std::to_string(call)); }
    void fault_switched(Time, const FaultSpan& fault, bool on) override {
        add(name_of(fault) + (on ? " on" : " off"));
    }
    void progress(const Progress&) override {
        if (stop_at_progress) {
            *stop_at_progress = true;
        }
    }

    void add(const std::string& text) { all.push_back(text); }

    std::vector<std::string> all;
    std::vector<std::string> uuids;
    std::atomic<bool>* stop_at_progress = nullptr;
};

class DriverTest : public ::testing::Test {
  protected:
    DriverTest() {
        plan_.read = audio_of(480);
        plan_.write = audio_of(320);
        plan_.free_running = true;
    }

    static Audio audio_of(std::size_t samples) {
        return {"some.wav", 8000, std::make_shared<std::vector<std::int16_t>>(samples)};
    }

    RunTotals run() {
        driver_ = std::make_unique<Driver>(host_, plan_, events_);
        return driver_->run(stop_);
    }

    using Texts = std::vector<std::string>;

    host::EmbeddedHost host_;
    CallPlan plan_;
    Events events_;
    std::atomic<bool> stop_{false};
    std::unique_ptr<Driver> driver_;
};

TEST_F(DriverTest, ACallPlaysBothSidesAndEnds) {
    plan_.uuid = "00010203-0405-0607-0809-0a0b0c0d0e0f";
    const RunTotals totals = run();
    EXPECT_EQ(events_.all, (Texts{"begun 1", "untapped 1", "over 1"}));
    EXPECT_EQ(events_.uuids, (Texts{"00010203-0405-0607-0809-0a0b0c0d0e0f"}));
    EXPECT_EQ(driver_->tally().side(host::Direction::READ).frames, 3u);
    EXPECT_EQ(driver_->tally().side(host::Direction::WRITE).frames, 2u);
    EXPECT_EQ(totals.calls_ended, 1u);
    EXPECT_EQ(totals.calls_tapped, 0u);
    EXPECT_EQ(host_.report().sessions_alive, 0u);
}

TEST_F(DriverTest, ManyCallsPlayAtOnce) {
    plan_.schedule.calls = 50;
    plan_.schedule.rate = 100000;
    const RunTotals totals = run();
    EXPECT_EQ(totals.calls_begun, 50u);
    EXPECT_EQ(totals.calls_ended, 50u);
    EXPECT_EQ(driver_->tally().frames(), 50u * 5);
    EXPECT_EQ(host_.report().sessions_alive, 0u);
}

TEST_F(DriverTest, NoMoreCallsThanAllowedAreUpAtOnce) {
    plan_.schedule.calls = 20;
    plan_.schedule.rate = 100000;
    plan_.concurrent = 3;
    const RunTotals totals = run();
    EXPECT_EQ(totals.calls_ended, 20u);
    EXPECT_LE(totals.most_at_once, 3u);
}

TEST_F(DriverTest, CommandsRunInTheOrderOfTheirTimes) {
    plan_.free_running = false;
    plan_.schedule.length_s = Span{0.1, 0.1};
    plan_.commands = {{0.01, "status {n}"}, {0.02, "status {uuid}"}};
    const RunTotals totals = run();
    EXPECT_EQ(events_.all, (Texts{"begun 1", "untapped 1", "ran 1 status 1",
                                  "ran 1 status " + events_.uuids[0], "over 1"}));
    EXPECT_EQ(totals.commands_run, 2u);
}

TEST_F(DriverTest, ACommandThatTheHostDoesNotKnowHasFailed) {
    plan_.tap_after_s = 0.05;
    plan_.commands = {{0, "quorvan version"}};
    EXPECT_EQ(run().commands_failed, 1u);
}

TEST_F(DriverTest, TheFirstFailedCommandIsKeptWithItsAnswer) {
    plan_.tap_after_s = 0.05;
    plan_.schedule.calls = 2;
    plan_.commands = {{0, "quorvan {n} features"}, {0, "quorvan version"}};
    const RunTotals totals = run();
    EXPECT_EQ(totals.commands_failed, 4u);
    ASSERT_TRUE(totals.first_failed.has_value());
    EXPECT_EQ(totals.first_failed->call, 1u);
    EXPECT_EQ(totals.first_failed->command, "quorvan 1 features");
    EXPECT_EQ(totals.first_failed->answer, "INVALID COMMAND!\n");
}

TEST_F(DriverTest, ACommandThatComesTooLateIsReported) {
    plan_.commands = {{0, "early"}, {60, "late"}};
    const RunTotals totals = run();
    EXPECT_EQ(totals.commands_missed, 1u);
    EXPECT_EQ(std::count(events_.all.begin(), events_.all.end(), "missed 1 late"), 1);
}

TEST_F(DriverTest, ACommandCanComeBeforeTheApplication) {
    plan_.tap_after_s = 0.05;
    plan_.commands = {{0, "first"}};
    run();
    EXPECT_EQ(events_.all, (Texts{"begun 1", "ran 1 first", "untapped 1", "over 1"}));
}

TEST_F(DriverTest, APlannedHangUpEndsACallWhoseAudioGoesOn) {
    plan_.free_running = false;
    plan_.schedule.length_s = Span{60, 60};
    plan_.hangup_s = 0.05;
    const RunTotals totals = run();
    EXPECT_EQ(totals.calls_ended, 1u);
    EXPECT_EQ(totals.calls_cut, 0u);
    EXPECT_LT(totals.elapsed_s, 30);
}

TEST_F(DriverTest, AnInterruptedRunHangsUpWhatIsLeft) {
    plan_.free_running = false;
    plan_.schedule.length_s = Span{60, 60};
    plan_.schedule.calls = 3;
    events_.stop_at_progress = &stop_;
    const RunTotals totals = run();
    EXPECT_EQ(totals.calls_cut, 3u);
    EXPECT_EQ(totals.calls_ended, 0u);
    EXPECT_EQ(host_.report().sessions_alive, 0u);
}

TEST_F(DriverTest, FaultsAreSwitchedAtTheirTimes) {
    plan_.free_running = false;
    plan_.schedule.length_s = Span{0.2, 0.2};
    plan_.faults = {parse_fault("null-frame@0.02-0.04")};
    run();
    EXPECT_EQ(events_.all,
              (Texts{"begun 1", "untapped 1", "null-frame on", "null-frame off", "over 1"}));
    EXPECT_FALSE(host_.faults().on(host::Fault::NULL_FRAME));
}

TEST_F(DriverTest, ASideWithoutAudioHasNoFrames) {
    plan_.write.reset();
    run();
    EXPECT_EQ(driver_->tally().side(host::Direction::READ).frames, 3u);
    EXPECT_EQ(driver_->tally().side(host::Direction::WRITE).frames, 0u);
}

}  // namespace
}  // namespace qv::tools::call
