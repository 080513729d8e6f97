#include "node/report/line_report.h"

#include <set>
#include <sstream>

#include "node/report/text.h"
#include "tests/node/calls/node_call.h"
#include "tests/node/report/outline.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using tests::Lines;

class LineReportTest : public tests::NodeCallTest {
  protected:
    LineReportTest() { watch({&report_}); }

    // What was written since the last call of one of these functions.
    std::string text() {
        const std::string written = out_.str();
        out_.str("");
        return written;
    }
    Lines plain_lines() { return tests::plain_lines(text()); }
    Lines lines() { return tests::outlines(text()); }
    Lines last_lines(std::size_t count) {
        const Lines all = lines();
        return {all.end() - static_cast<std::ptrdiff_t>(std::min(count, all.size())), all.end()};
    }

    const std::string CALL = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37  ";
    std::ostringstream out_;
    LineReport report_{out_};
};

TEST_F(LineReportTest, CallIsReportedFromStartToEnd) {
    send_call();
    EXPECT_EQ(lines(), (Lines{"start: 192.0.2.1:30000 \"a84b4c76e66710@192.0.2.7\" 42", "control",
                              "terminate: 0.0", "end", "  originator: 0.0 8000 2 -49",
                              "  terminator: 0.0 8000 2 -33",
                              "  file: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav",
                              "  file: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav"}));
}

TEST_F(LineReportTest, HeldLinesAreShownWhenReleased) {
    report_.hold();
    report_.say("events lost", "7");
    EXPECT_EQ(lines(), Lines{});
    report_.release();
    EXPECT_EQ(lines(), Lines{"events lost: 7"});
    report_.say("summary", "1");
    EXPECT_EQ(lines(), Lines{"summary: 1"});
}

TEST_F(LineReportTest, NotMoreThanAHundredLinesAreHeld) {
    report_.hold();
    for (int i = 0; i < 1000; ++i) {
        report_.say("timeline not written", "");
    }
    report_.release();
    EXPECT_EQ(lines().size(), 100U);
}

TEST_F(LineReportTest, LineBeginsWithTimeAndCall) {
    send("call_7_terminate");
    send_start("x");
    EXPECT_EQ(out_.str().substr(12, 2 + CALL.size() + 5), "  " + CALL + "start");
    EXPECT_EQ(out_.str()[2], ':');
    EXPECT_EQ(out_.str()[8], '.');
}

TEST_F(LineReportTest, OutboundStartTellsAllThatIsGiven) {
    send("start_outbound_full");
    EXPECT_EQ(lines()[0],
              "start: 192.0.2.1:30000 \"f81d4fae-7dec-11d0@192.0.2.7\" 1234567890123456789 "
              "192.0.2.10:5060");
}

TEST_F(LineReportTest, ReferenceCannotSteerTheTerminal) {
    send_start("\x1b[2J\n");
    EXPECT_EQ(lines()[0], "start: 192.0.2.1:30000 \"\\x1b[2J\\x0a\" 42");
}

TEST_F(LineReportTest, LateStartSaysSo) {
    send("call_1_start");
    const std::string usual = plain_lines()[0];
    watch({&report_});
    send_data(1, 0);
    send("call_1_start");
    const std::string late = plain_lines()[0];
    EXPECT_EQ(late.substr(0, usual.size()), usual);
    EXPECT_GT(late.size(), usual.size());
}

TEST_F(LineReportTest, GapTellsWhatIsMissing) {
    send_data(1, 0);
    send_data(4, 24);
    pass(300ms);
    EXPECT_EQ(lines(), Lines{"gap: 2 0.0 2"});
}

TEST_F(LineReportTest, GapBeyondTheLimitIsFilledInPart) {
    const auto gap_of_three_packets = [this] {
        send_data(1, 0);
        // A gap of this length is accepted when the next packet continues behind it.
        send_data(4, 24);
        send_data(5, 32);
        pass(300ms);
        return text();
    };
    CallLimits limits;
    limits.sample_rate = 8000;
    watch({&report_}, limits);
    const std::string filled = gap_of_three_packets();
    limits.max_silence_s = 0.001;
    watch({&report_}, limits);
    const std::string cut = gap_of_three_packets();
    EXPECT_EQ(tests::outlines(filled), Lines{"gap: 2 0.0 2"});
    EXPECT_EQ(tests::outlines(cut), Lines{"gap: 3 0.0 3"});
}

TEST_F(LineReportTest, ManyGapsAreCountedOnly) {
    for (unsigned char gap = 0; gap < 12; ++gap) {
        send_data(static_cast<unsigned char>(1 + 2 * gap), static_cast<unsigned char>(16 * gap));
        pass(300ms);
    }
    const Lines all = plain_lines();
    ASSERT_EQ(all.size(), 10u);
    EXPECT_EQ(all[9].substr(0, all[8].size()), all[8]);
    EXPECT_GT(all[9].size(), all[8].size()) << "it should say that further gaps are counted only";
}

TEST_F(LineReportTest, EndCountsWhatWasWrong) {
    send_data(1, 0);
    send_data(3, 16);
    pass(300ms);
    send_data(2, 8);
    send_data(3, 16);
    send_data(5, 32);
    send_data(4, 24);
    send_data(9, 64);
    send_data(8, 56);
    pass(120s);
    // Packets, level, gaps, lost, reordered, duplicated, late.
    EXPECT_EQ(last_lines(3)[1], "  originator: 0.0 8000 8 -49 2 2 2 1 1");
}

TEST_F(LineReportTest, CallWithoutStartAndTerminateSaysSo) {
    send_data(1, 0);
    pass(120s);
    EXPECT_EQ(lines()[0], "end: 192.0.2.1:30000");
}

TEST_F(LineReportTest, EachReasonOfAnEndHasItsWords) {
    CallLimits limits;
    limits.idle = 1h;
    limits.max_age = 1min;
    watch({&report_}, limits);
    std::set<std::string> ends;
    const auto end = [&] { ends.insert(plain_lines().back()); };
    send("call_1_start");
    send("call_7_terminate");
    pass(1s);
    end();
    send("call_1_start");
    pass(1min);
    end();
    send("call_1_start");
    table_->shut_down();
    end();
    limits.idle = 1s;
    watch({&report_}, limits);
    send("call_1_start");
    pass(1s);
    end();
    EXPECT_EQ(ends.size(), 4u) << testing::PrintToString(ends);
}

TEST_F(LineReportTest, FailedFilesAreReportedWithTheirReasonAndNamedAtTheEnd) {
    store_.error = "error-28";
    send_call();
    EXPECT_EQ(last_lines(7),
              (Lines{"file error: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav error-28",
                     "file error: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav error-28",
                     "end: 2", "  originator: 0.0 8000 2 -49", "  terminator: 0.0 8000 2 -33",
                     "  failed: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav error-28",
                     "  failed: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav error-28"}));
}

TEST_F(LineReportTest, FileThatWasWrittenIsNamedBesideTheOneThatFailed) {
    store_.errors["3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav"] = "error-27";
    send("call_2_read");
    send("call_3_write");
    pass(120s);
    const Lines last = last_lines(5);
    EXPECT_EQ(last[0], "end: 192.0.2.1:30000 1");
    EXPECT_EQ((Lines{last[3], last[4]}),
              (Lines{"  file: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav",
                     "  failed: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav error-27"}));
}

TEST_F(LineReportTest, SilentSideHasNoLevel) {
    send("call_3_write");
    pass(120s);
    EXPECT_EQ(last_lines(2)[0], "  terminator: 0.0 8000 1") << "there is no level";
}

TEST_F(LineReportTest, WhatConcernsNoCallStandsInTheSameColumns) {
    report_.say("malformed packet", "bad magic");
    EXPECT_EQ(plain_lines(), (Lines{"malformed packet                      bad magic"}));
}

TEST_F(LineReportTest, LineWithoutTextEndsWithItsWords) {
    report_.say("interrupted", "");
    EXPECT_EQ(plain_lines(), Lines{"interrupted"});
    send("call_2_read");
    send("call_7_terminate");
    EXPECT_EQ(plain_lines(), Lines{"terminate"});
}

TEST_F(LineReportTest, DateIsToldAtTheBeginningAndOnEachFurtherDay) {
    setenv("TZ", "XST-1", 1);
    tzset();
    report_.show_dates();
    report_as_of(Micros{1'767'221'950'000'000});  // 2025-12-31, 22:59:10 UTC.
    report_.say("listening", "");
    send("call_1_start");
    report_as_of(Micros{1'767'222'005'000'000});
    send("call_7_terminate");
    report_.say("idle", "");
    report_as_of(std::nullopt);
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(lines(), (Lines{"date: 2025-12-31 UTC+01:00", "listening",
                              "start: 192.0.2.1:30000 \"a84b4c76e66710@192.0.2.7\" 42",
                              "date: 2026-01-01 UTC+01:00", "terminate: 0.0", "idle"}));
}

}  // namespace

}  // namespace qv::node
