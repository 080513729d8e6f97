#include "node/report/summary.h"

#include "node/report/text.h"

namespace qv::node {

namespace {

std::string calls_text(const Totals& totals) {
    std::string text = counted(totals.calls_ended, "call");
    if (totals.calls_not_terminated != 0) {
        text += " (" + grouped(totals.calls_not_terminated) + " without terminate packet)";
    }
    if (totals.calls_without_start != 0) {
        text += " (" + grouped(totals.calls_without_start) + " without start packet)";
    }
    return text;
}

void print_unused(LineReport& lines, const NodeFigures& figures) {
    if (figures.not_allowed != 0) {
        lines.say("  not used: " + grouped(figures.not_allowed), "sender is not allowed");
    }
    for (std::size_t i = 0; i < figures.malformed.size(); ++i) {
        if (figures.malformed[i] != 0) {
            lines.say("  malformed: " + grouped(figures.malformed[i]),
                      describe(static_cast<media::DecodeResult>(i)));
        }
    }
    for (std::size_t i = 0; i < DROP_COUNT; ++i) {
        const auto reason = static_cast<Drop>(i);
        if (figures.totals.dropped_for(reason) != 0) {
            lines.say("  not used: " + grouped(figures.totals.dropped_for(reason)),
                      describe(reason));
        }
    }
}

void print_reports(LineReport& lines, const ReportFigures& reports) {
    if (reports.sent != 0) {
        lines.say("  reports sent: " + grouped(reports.sent), "");
    }
    if (reports.failed != 0) {
        lines.say("  reports not sent: " + grouped(reports.failed), "the system refused them");
    }
    if (reports.not_allowed != 0) {
        lines.say("  reports not sent: " + grouped(reports.not_allowed),
                  "report node is not allowed");
    }
    if (reports.too_many != 0) {
        lines.say("  reports not sent: " + grouped(reports.too_many), "there were too many");
    }
}

}  // namespace

void print_summary(LineReport& lines, const NodeFigures& figures, const LostEvents& lost_events) {
    const Totals& totals = figures.totals;
    lines.say("summary", calls_text(totals) + ", " + counted(figures.received, "packet") + ", " +
                             grouped(totals.audio_bytes) + " bytes of audio, " +
                             counted(totals.gaps, "gap"));
    if (totals.calls_apart != 0) {
        lines.say("  sides may be apart in time: " + counted(totals.calls_apart, "call"), "");
    }
    print_unused(lines, figures);
    print_reports(lines, figures.reports);
    if (figures.removed_calls != 0) {
        lines.say("  removed: " + counted(figures.removed_calls, "call"),
                  grouped(figures.removed_bytes) + " bytes");
    }
    if (totals.file_errors != 0) {
        lines.say("  not written: " + counted(totals.file_errors, "file"), "");
    }
    if (figures.dropped_bytes != 0) {
        lines.say("  not written: " + grouped(figures.dropped_bytes) + " bytes",
                  "the disk was too slow");
    }
    if (figures.calls_not_written != 0) {
        lines.say("  not written: " + counted(figures.calls_not_written, "call"), "too many files");
    }
    if (lost_events.count != 0) {
        lines.say("  events lost: " + grouped(lost_events.count), lost_events.path);
    }
    if (figures.lost_lines != 0) {
        lines.say("  lines lost: " + grouped(figures.lost_lines), "nothing read this output");
    }
    if (figures.overflowed != 0) {
        lines.say("  lost in the socket: " + grouped(figures.overflowed), "buffer full");
    }
}

}  // namespace qv::node
