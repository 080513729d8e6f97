#include "node/report/summary.h"

#include <gtest/gtest.h>

#include <sstream>

namespace qv::node {

namespace {

using media::DecodeResult;

// The lines, without the time of day.
std::string summary_of(const NodeFigures& figures, const LostEvents& lost_events = {}) {
    std::ostringstream out;
    LineReport lines(out);
    print_summary(lines, figures, lost_events);
    std::istringstream text(out.str());
    std::string all;
    for (std::string line; std::getline(text, line);) {
        all += line.substr(std::string("hh:mm:ss.mmm  ").size()) + '\n';
    }
    return all;
}

TEST(SummaryTest, RunWithoutTroubleIsOneLine) {
    NodeFigures figures;
    figures.received = 1200;
    figures.totals.calls_ended = 1;
    figures.totals.audio_bytes = 320;
    EXPECT_EQ(summary_of(figures),
              "summary                               1 call, 1,200 packets, "
              "320 bytes of audio, 0 gaps\n");
}

TEST(SummaryTest, AllThatWentWrongIsSaid) {
    NodeFigures figures;
    figures.totals.calls_ended = 5;
    figures.totals.calls_not_terminated = 2;
    figures.totals.calls_without_start = 1;
    figures.totals.gaps = 1;
    figures.totals.count_drop(Drop::LATE);
    figures.totals.file_errors = 1;
    figures.malformed[static_cast<std::size_t>(DecodeResult::BAD_MAGIC)] = 3;
    figures.calls_not_written = 4;
    figures.overflowed = 6;
    EXPECT_EQ(summary_of(figures, {7, "events.jsonl"}),
              "summary                               5 calls (2 without terminate packet) "
              "(1 without start packet), 0 packets, 0 bytes of audio, 1 gap\n"
              "  malformed: 3                        bad magic\n"
              "  not used: 1                         data packet too late\n"
              "  not written: 1 file\n"
              "  not written: 4 calls                too many files\n"
              "  events lost: 7                      events.jsonl\n"
              "  lost in the socket: 6               buffer full\n");
}

}  // namespace

}  // namespace qv::node
