#include "tools/call/report.h"

#include <gtest/gtest.h>

#include "tools/call/run_printer.h"

namespace qv::tools::call {
namespace {

using std::chrono::microseconds;

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

    RunReport report_;
};

TEST_F(ReportTest, ARunWithoutTroubleHasNoProblems) {
    EXPECT_TRUE(problems_of(report_).empty());
    EXPECT_EQ(line("Left over "),
              "no frame altered; no lock, media bug, event binding or call left");
}

TEST_F(ReportTest, AModuleThatStaysInMemoryHasCallsLeft) {
    report_.unload.left_memory = false;
    const std::string text = "the module stayed in memory: it still counts media bugs";
    EXPECT_EQ(problems_of(report_), (std::vector<std::string>{text}));
    EXPECT_EQ(line("Left over "), text);
    EXPECT_EQ(report_json(report_)["module"]["gone_from_memory"], false);
}

TEST_F(ReportTest, EventBindingsThatWentWithTheModuleWereLeft) {
    report_.unload.bindings_dropped = 2;
    EXPECT_EQ(line("Left over "), "2 event bindings still there");
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
    EXPECT_EQ(problems_of(report_),
              (std::vector<std::string>{
                  "2 calls cut short by a signal", "1 call not tapped", "3 API commands failed",
                  "4 API commands too late for the call", "5 errors in the log",
                  "6 session locks still held", "7 media bugs still attached",
                  "8 event bindings still there", "9 calls ended under a lock",
                  "10 locks given back without being held", "11 frames altered by the module",
                  "the module could not be unloaded: it runs"}));
}

TEST_F(ReportTest, TheFirstFailedCommandIsNamed) {
    report_.totals.commands_failed = 20;
    report_.totals.first_failed = {3, "quorvane version now", "-ERR too much\nusage: ...\n"};
    EXPECT_EQ(problems_of(report_),
              std::vector<std::string>{"20 API commands failed; the first, of call 3: "
                                       "'quorvane version now' was answered '-ERR too much'"});
    const auto json = report_json(report_)["commands"]["first_failed"];
    EXPECT_EQ(json["call"], 3);
    EXPECT_EQ(json["command"], "quorvane version now");
    EXPECT_EQ(json["answer"], "-ERR too much\nusage: ...\n");
}

TEST_F(ReportTest, AFailedCommandWithoutAnAnswerIsNamed) {
    report_.totals.commands_failed = 1;
    report_.totals.first_failed = {1, "quorvan version", ""};
    EXPECT_EQ(problems_of(report_),
              std::vector<std::string>{"1 API command failed; the first, of call 1: "
                                       "'quorvan version' was not answered"});
}

TEST_F(ReportTest, TheFiguresAreLinesForPeople) {
    EXPECT_EQ(line("Calls     "), "2 calls, 2 tapped; at most 2 at once; 5.0 s in all");
    EXPECT_EQ(line("Frames    "),
              "read (originator) 250, write (terminator) 250; 156.2 KiB of audio, 8,000 Hz, "
              "20 ms frames");
    EXPECT_EQ(line("Packets   "),
              "500 of audio, 504 with start and terminate: so many belong at the media node");
    EXPECT_EQ(line("Handling  "),
              "50 % 4.0 us, 90 % 5.0 us, 99 % 6.0 us, 99.9 % 7.0 us, largest 8.0 us "
              "(in the module)");
    EXPECT_EQ(line("CPU       "),
              "0.05 s (0.02 s user, 0.03 s system): 1.0 % of a core, 5.00 ms for each second of "
              "a call");
    EXPECT_EQ(line("Memory    "),
              "1.0 MiB at the most; 8.0 KiB more than before the calls, 4.0 KiB a call");
}

TEST_F(ReportTest, OnAnOutboundCallThePartyIsTheTerminator) {
    report_.outbound = true;
    EXPECT_EQ(line("Frames    ").substr(0, 42), "read (terminator) 250, write (originator) ");
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
    EXPECT_EQ(progress_bar(progress_of(15, 30, 3)),
              "[#####.....]  50 %  15.0 s of 30.0 s, 1,000 calls up, 3 of 2,000 over, "
              "1,234,567 frames");
}

TEST(ProgressTest, ARunThatTakesLongerIsMeasuredByItsCalls) {
    EXPECT_DOUBLE_EQ(part_done(progress_of(40, 30, 500)), 0.25);
    EXPECT_DOUBLE_EQ(part_done(progress_of(40, 30, 2000)), 1);
    EXPECT_DOUBLE_EQ(part_done(progress_of(0, 0, 0)), 0);
}

}  // namespace
}  // namespace qv::tools::call
