#include "tools/call/report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "tools/call/run_printer.h"

namespace qv::tools::call {
namespace {

using std::chrono::microseconds;

// The numbers in a text for people. The words may change.
std::vector<std::string> numbers_of(const std::string& text) {
    static const std::regex number("[0-9][0-9,.]*[0-9]|[0-9]");
    return {std::sregex_token_iterator(text.begin(), text.end(), number), {}};
}

class ReportTest : public ::testing::Test {
  protected:
    ReportTest() {
        report_.rate = 8000;
        report_.frame_ms = 20;
        report_.totals.calls_planned = report_.totals.calls_begun = 2;
        report_.totals.calls_tapped = report_.totals.calls_ended = 2;
        report_.totals.most_at_once = 2;
        report_.totals.call_seconds = 10;
        report_.totals.elapsed_s = 5;
        report_.totals.user_cpu_s = 0.02;
        report_.totals.system_cpu_s = 0.03;
        report_.totals.memory_before = 1024 * 1024;
        report_.totals.memory_most = 1024 * 1024 + 8192;
        report_.read = {250, 80000, 250, 250, 0};
        report_.write = {250, 80000, 250, 250, 0};
        report_.handling = {500,
                            microseconds(4),
                            microseconds(5),
                            microseconds(6),
                            microseconds(7),
                            microseconds(8)};
        report_.unload.unloaded = report_.unload.left_memory = true;
    }

    std::string line(const std::string& begin) const {
        for (const std::string& each : report_lines(report_)) {
            if (each.compare(0, begin.size(), begin) == 0) {
                return each.substr(begin.size());
            }
        }
        return "none";
    }

    std::vector<std::string> numbers(const std::string& begin) const {
        return numbers_of(line(begin));
    }

    // The first number of each problem.
    std::vector<std::string> problem_counts() const {
        std::vector<std::string> counts;
        for (const std::string& problem : problems_of(report_)) {
            const auto found = numbers_of(problem);
            counts.push_back(found.empty() ? "none" : found.front());
        }
        return counts;
    }

    RunReport report_;
};

TEST_F(ReportTest, ARunWithoutTroubleHasNoProblems) {
    EXPECT_TRUE(problems_of(report_).empty());
    EXPECT_NE(line("Left over "), "none");
}

TEST_F(ReportTest, AModuleThatStaysInMemoryHasCallsLeft) {
    report_.unload.left_memory = false;
    ASSERT_EQ(problems_of(report_).size(), 1U);
    EXPECT_EQ(line("Left over "), problems_of(report_).front());
    EXPECT_EQ(report_json(report_)["module"]["gone_from_memory"], false);
}

TEST_F(ReportTest, EventBindingsThatWentWithTheModuleWereLeft) {
    report_.unload.bindings_dropped = 2;
    EXPECT_EQ(numbers("Left over "), std::vector<std::string>{"2"});
    EXPECT_EQ(report_json(report_)["module"]["bindings_dropped"], 2);
}

TEST_F(ReportTest, EveryKindOfTroubleIsAProblem) {
    report_.totals.calls_tapped = 1;
    report_.totals.calls_cut = 2;
    report_.totals.commands_failed = 3;
    report_.totals.commands_missed = 4;
    report_.log.errors = 5;
    report_.host.read_locks_held = 6;
    report_.host.bugs_attached = 7;
    report_.host.bindings_alive = 8;
    report_.host.sessions_destroyed_locked = 9;
    report_.host.unlocks_without_lock = 10;
    report_.host.frames_altered = 11;
    report_.unload = {};
    report_.unload.error = "it runs";
    EXPECT_EQ(problem_counts(), (std::vector<std::string>{"2", "1", "3", "4", "5", "6", "7", "8",
                                                          "9", "10", "11", "none"}));
    EXPECT_NE(problems_of(report_).back().find("it runs"), std::string::npos);
}

TEST_F(ReportTest, TheFirstFailedCommandIsNamed) {
    report_.totals.commands_failed = 20;
    report_.totals.first_failed = {3, "quorvane version now", "-ERR too much\nusage: ...\n"};
    const std::string problem = problems_of(report_).at(0);
    EXPECT_EQ(numbers_of(problem), (std::vector<std::string>{"20", "3"}));
    EXPECT_NE(problem.find("'quorvane version now'"), std::string::npos);
    EXPECT_NE(problem.find("'-ERR too much'"), std::string::npos);
    const auto json = report_json(report_)["commands"]["first_failed"];
    EXPECT_EQ(json["call"], 3);
    EXPECT_EQ(json["command"], "quorvane version now");
    EXPECT_EQ(json["answer"], "-ERR too much\nusage: ...\n");
}

TEST_F(ReportTest, AFailedCommandWithoutAnAnswerIsNamed) {
    report_.totals.commands_failed = 1;
    report_.totals.first_failed = {1, "quorvan version", ""};
    const std::string problem = problems_of(report_).at(0);
    EXPECT_EQ(numbers_of(problem), (std::vector<std::string>{"1", "1"}));
    EXPECT_NE(problem.find("'quorvan version'"), std::string::npos);
}

TEST_F(ReportTest, TheFiguresAreLinesForPeople) {
    using Texts = std::vector<std::string>;
    EXPECT_EQ(numbers("Calls     "), (Texts{"2", "2", "2", "5.0"}));
    EXPECT_EQ(numbers("Frames    "), (Texts{"250", "250", "156.2", "8,000", "20"}));
    EXPECT_EQ(numbers("Packets   "), (Texts{"500", "504"}));
    EXPECT_EQ(numbers("Handling  "),
              (Texts{"50", "4.0", "90", "5.0", "99", "6.0", "99.9", "7.0", "8.0"}));
    EXPECT_EQ(numbers("CPU       "), (Texts{"0.05", "0.02", "0.03", "1.0", "5.00"}));
    EXPECT_EQ(numbers("Memory    "), (Texts{"1.0", "8.0", "4.0"}));
}

TEST_F(ReportTest, OnAnOutboundCallThePartyIsTheTerminator) {
    report_.outbound = true;
    const std::string frames = line("Frames    ");
    EXPECT_LT(frames.find("terminator"), frames.find("originator"));
}

TEST_F(ReportTest, FreeRunningFramesHaveNoLateness) {
    EXPECT_EQ(line("Lateness"), "none");
}

TEST_F(ReportTest, TheJsonHoldsTheSameFigures) {
    const auto json = report_json(report_);
    EXPECT_EQ(json["calls"]["tapped"], 2);
    EXPECT_EQ(json["read"]["frames"], 250);
    EXPECT_EQ(json["data_packets_expected"], 500);
    EXPECT_DOUBLE_EQ(json["handling"]["p99_s"], 6e-6);
    EXPECT_DOUBLE_EQ(json["cpu"]["per_call_second_s"], 0.005);
    EXPECT_DOUBLE_EQ(json["memory"]["per_call_bytes"], 4096);
    EXPECT_EQ(json["module"]["unloaded"], true);
    EXPECT_EQ(json["module"]["gone_from_memory"], true);
    EXPECT_TRUE(json["commands"]["first_failed"].is_null());
    EXPECT_TRUE(json["problems"].empty());
}

Progress progress_of(double elapsed, double expected, std::size_t over) {
    return {elapsed, expected, 1000, over, 2000, 1234567};
}

TEST(ProgressTest, TheBarFillsWithTheTime) {
    const std::string bar = progress_bar(progress_of(15, 30, 3));
    EXPECT_EQ(bar.substr(0, 18), "[#####.....]  50 %");
    EXPECT_EQ(numbers_of(bar),
              (std::vector<std::string>{"50", "15.0", "30.0", "1,000", "3", "2,000", "1,234,567"}));
}

TEST(ProgressTest, ARunThatTakesLongerIsMeasuredByItsCalls) {
    EXPECT_DOUBLE_EQ(part_done(progress_of(40, 30, 500)), 0.25);
    EXPECT_DOUBLE_EQ(part_done(progress_of(40, 30, 2000)), 1);
    EXPECT_DOUBLE_EQ(part_done(progress_of(0, 0, 0)), 0);
}

}  // namespace
}  // namespace qv::tools::call
