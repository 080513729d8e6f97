#include "node/report/summary.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/node/report/outline.h"

namespace qv::node {

namespace {

using media::DecodeResult;
using tests::Lines;

Lines summary_of(const NodeFigures& figures, const LostEvents& lost_events = {}) {
    std::ostringstream out;
    LineReport lines(out);
    print_summary(lines, figures, lost_events);
    return tests::outlines(out.str());
}

TEST(SummaryTest, RunWithoutTroubleIsOneLine) {
    NodeFigures figures;
    figures.received = 1200;
    figures.totals.calls_ended = 1;
    figures.totals.audio_bytes = 320;
    // Calls, packets, bytes and gaps.
    EXPECT_EQ(summary_of(figures), Lines{"summary: 1 1,200 320 0"});
}

TEST(SummaryTest, AllThatWentWrongIsSaid) {
    NodeFigures figures;
    figures.totals.calls_ended = 5;
    figures.totals.calls_not_terminated = 2;
    figures.totals.calls_without_start = 1;
    figures.totals.calls_apart = 2;
    figures.totals.gaps = 1;
    figures.totals.count_drop(Drop::LATE);
    figures.totals.file_errors = 1;
    figures.malformed[static_cast<std::size_t>(DecodeResult::BAD_MAGIC)] = 3;
    figures.calls_not_written = 4;
    figures.overflowed = 6;
    EXPECT_EQ(
        summary_of(figures, {7, "events.1"}),
        (Lines{"summary: 5 2 1 0 0 1", "  sides may be apart in time: 2 calls", "  malformed: 3",
               "  not used: 1", "  not written: 1 file", "  not written: 4 calls",
               "  events lost: 7: events.1", "  lost in the socket: 6"}));
}

}  // namespace

}  // namespace qv::node
