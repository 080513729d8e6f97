#include "node/report/line_report.h"

#include <sstream>

#include "node/report/text.h"
#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

class LineReportTest : public tests::NodeCallTest {
  protected:
    LineReportTest() { watch({&report_}); }

    // The lines since the last call of this function, without the time of day and the call's UUID.
    Lines lines() {
        std::istringstream text(out_.str());
        out_.str("");
        Lines all;
        for (std::string line; std::getline(text, line);) {
            line.erase(0, std::string("hh:mm:ss.mmm  ").size());
            all.push_back(line.rfind(CALL, 0) == 0 ? line.substr(CALL.size()) : line);
        }
        return all;
    }
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
    EXPECT_EQ(lines(), (Lines{"start        inbound, from 192.0.2.1:30000, reference "
                              "\"a84b4c76e66710@192.0.2.7\", rule 42, audio "
                              "activity on both; recording on both",
                              "control      audio activity off both; recording on both",
                              "terminate    after 0.0 s",  //
                              "end          complete",
                              "  originator 0.0 s at 8000 Hz (assumed), 2 packets, level -49 dB",
                              "  terminator 0.0 s at 8000 Hz (assumed), 2 packets, level -33 dB",
                              "  file       3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav",
                              "  file       3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav"}));
}

TEST_F(LineReportTest, HeldLinesAreShownWhenReleased) {
    report_.hold();
    report_.say("events lost", "cannot write to x");
    EXPECT_EQ(lines(), Lines{});
    report_.release();
    EXPECT_EQ(lines(), Lines{"events lost                           cannot write to x"});
    report_.say("summary", "1 call");
    EXPECT_EQ(lines(), Lines{"summary                               1 call"});
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
              "c2d8e1f4-7a06-45b3-a190-9c3d5e7f2b68  start        outbound, from 192.0.2.1:30000, "
              "reference "
              "\"f81d4fae-7dec-11d0@192.0.2.7\", rule 1234567890123456789, report to "
              "192.0.2.10:5060, audio activity on both; detection off originator; recording on "
              "both");
}

TEST_F(LineReportTest, ReferenceCannotSteerTheTerminal) {
    send_start("\x1b[2J\n");
    EXPECT_EQ(lines()[0],
              "start        inbound, from 192.0.2.1:30000, "
              "reference \"\\x1b[2J\\x0a\", rule 42, "
              "audio activity on both; "
              "recording on both");
}

TEST_F(LineReportTest, LateStartSaysSo) {
    send_data(1, 0);
    send("call_1_start");
    EXPECT_EQ(lines()[0],
              "start        inbound, from 192.0.2.1:30000, "
              "reference \"a84b4c76e66710@192.0.2.7\", "
              "rule 42, audio "
              "activity on both; recording on both (late: other packets came before)");
}

TEST_F(LineReportTest, GapTellsWhatIsMissing) {
    send_data(1, 0);
    send_data(4, 24);
    pass(300ms);
    EXPECT_EQ(
        lines(),
        (Lines{"gap          originator: 2 packets lost at 0.0 s, 2 ms filled with silence"}));
}

TEST_F(LineReportTest, GapBeyondTheLimitIsFilledInPart) {
    CallLimits limits;
    limits.sample_rate = 8000;
    limits.max_silence_s = 0.001;
    watch({&report_}, limits);
    send_data(1, 0);
    // A gap of this length is accepted when the next packet continues behind it.
    send_data(4, 24);
    send_data(5, 32);
    EXPECT_EQ(lines(), (Lines{"gap          originator: 3 packets lost at 0.0 s, 3 ms filled with "
                              "silence in part only"}));
}

TEST_F(LineReportTest, ManyGapsAreCountedOnly) {
    for (unsigned char gap = 0; gap < 12; ++gap) {
        send_data(static_cast<unsigned char>(1 + 2 * gap), static_cast<unsigned char>(16 * gap));
        pass(300ms);
    }
    const Lines all = lines();
    ASSERT_EQ(all.size(), 10u);
    EXPECT_EQ(all[9],
              "gap          originator: 1 packet lost at 0.0 s, 1 ms filled with silence; further "
              "gaps are counted");
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
    EXPECT_EQ(last_lines(3)[1],
              "  originator 0.0 s at 8000 Hz (assumed), 8 packets, level -49 dB, 2 gaps (2 packets "
              "lost), 2 reordered, 1 duplicated, 1 too late");
}

TEST_F(LineReportTest, CallWithoutStartAndTerminateSaysSo) {
    send_data(1, 0);
    pass(120s);
    EXPECT_EQ(lines()[0],
              "end          its terminate packet never came: timed out, its start packet never "
              "came, from 192.0.2.1:30000");
}

TEST_F(LineReportTest, EachReasonOfAnEndHasItsWords) {
    CallLimits limits;
    limits.idle = 1h;
    limits.max_age = 1min;
    watch({&report_}, limits);
    send("call_1_start");
    pass(1min);
    EXPECT_EQ(last_lines(1)[0], "end          reached the greatest age");
    send("call_1_start");
    table_->shut_down();
    EXPECT_EQ(last_lines(1)[0], "end          cut short: the receiver ends");
}

TEST_F(LineReportTest, FailedFilesAreReportedWithTheirReasonAndNamedAtTheEnd) {
    store_.error = "No space left on device";
    send_call();
    EXPECT_EQ(last_lines(7),
              (Lines{"file error   3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav: No space "
                     "left on device",
                     "file error   3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav: No space "
                     "left on device",
                     "end          complete; 2 files could not be written",
                     "  originator 0.0 s at 8000 Hz (assumed), 2 packets, level -49 dB",
                     "  terminator 0.0 s at 8000 Hz (assumed), 2 packets, level -33 dB",
                     "  failed     3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav: No space "
                     "left on device",
                     "  failed     3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav: No space "
                     "left on device"}));
}

TEST_F(LineReportTest, FileThatWasWrittenIsNamedBesideTheOneThatFailed) {
    store_.errors["3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav"] = "File too large";
    send("call_2_read");
    send("call_3_write");
    pass(120s);
    const Lines last = last_lines(5);
    EXPECT_EQ(last[0],
              "end          its terminate packet never came: timed out, its start packet never "
              "came, from 192.0.2.1:30000; 1 file could not be written");
    EXPECT_EQ((Lines{last[3], last[4]}),
              (Lines{"  file       3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav",
                     "  failed     3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav: File too "
                     "large"}));
}

TEST_F(LineReportTest, SilentSideIsCalledSilent) {
    send("call_3_write");
    pass(120s);
    EXPECT_EQ(last_lines(2)[0], "  terminator 0.0 s at 8000 Hz (assumed), 1 packet, level silent");
}

TEST_F(LineReportTest, WhatConcernsNoCallStandsInTheSameColumns) {
    report_.say("malformed packet", "bad magic");
    EXPECT_EQ(lines(), (Lines{"malformed packet                      bad magic"}));
}

TEST_F(LineReportTest, LineWithoutTextEndsWithItsWords) {
    report_.say("interrupted", "");
    EXPECT_EQ(lines(), Lines{"interrupted"});
    send("call_2_read");
    send("call_7_terminate");
    EXPECT_EQ(lines(), Lines{"terminate"});
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
    Lines all = lines();
    for (std::string& line : all) {
        line.resize(std::min(line.size(), std::size_t{58}));
    }
    EXPECT_EQ(all, (Lines{"date                                  2025-12-31 UTC+01:00", "listening",
                          "start        inbound, from 192.0.2.1:30000, reference \"a84",
                          "date                                  2026-01-01 UTC+01:00",
                          "terminate    after 0.0 s", "idle"}));
}

}  // namespace

}  // namespace qv::node
