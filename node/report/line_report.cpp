#include "node/report/line_report.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "node/calls/call.h"
#include "node/report/text.h"
#include "tools/format.h"

namespace qv::node {

namespace {

// After this many gaps of a side, gaps are only counted until the end of the call.
constexpr std::uint64_t GAP_LINES_PER_SIDE = 10;

// Returns `what`, and `text` in the column at `width`.
std::string in_columns(std::string what, std::size_t width, const std::string& text) {
    if (!text.empty()) {
        what.resize(std::max(what.size(), width), ' ');
    }
    return what + text;
}

std::string reason_text(EndReason reason) {
    switch (reason) {
        case EndReason::TERMINATED:
            return "complete";
        case EndReason::REPLACED:
            return "its terminate packet never came: the call started anew";
        case EndReason::TIMED_OUT:
            return "its terminate packet never came: timed out";
        case EndReason::TOO_OLD:
            return "reached the greatest age";
        case EndReason::SHUTDOWN:
            return "cut short: the receiver ends";
    }
    return {};
}

std::string foreign_text(std::uint64_t packets) {
    return packets == 0 ? std::string()
                        : ", " + counted(packets, "packet") + " from other addresses dropped";
}

// "1.234 s"
std::string place_text(double seconds) {
    return tools::format("%.3f s", seconds);
}

std::string side_text(const CallSide& side) {
    const ReorderBuffer::Stats& stats = side.stats();
    std::string text =
        duration_text(side.seconds_at(side.position())) + " at " +
        std::to_string(side.sample_rate()) + " Hz" + (side.rate_assumed() ? " (assumed)" : "") +
        ", " + counted(stats.packets, "packet") + ", level " + level_text(side.level().level_db());
    if (stats.gaps != 0) {
        text +=
            ", " + counted(stats.gaps, "gap") + " (" + counted(stats.lost(), "packet") + " lost)";
    }
    append_count(text, stats.reordered, "reordered");
    append_count(text, stats.duplicates, "duplicated");
    append_count(text, stats.late, "too late");
    append_count(text, stats.implausible, "implausible");
    return text;
}

}  // namespace

void LineReport::say(const std::string& what, const std::string& text) {
    const LockGuard lock(mutex_);
    tell_date();
    put(time_of_day() + "  " + in_columns(what, 38, text) + '\n');
}

void LineReport::put(std::string line) {
    if (!holding_) {
        out_ << line;
    } else if (held_.size() < MOST_HELD) {
        held_.push_back(std::move(line));
    }
}

void LineReport::tell_date() {
    if (!dates_) {
        return;
    }
    const Micros now = wall_time();
    const std::string date = local_date(now);
    if (std::exchange(told_date_, date) != date) {
        put(time_of_day() + "  " + in_columns("date", 38, date + ' ' + zone_text(now)) + '\n');
    }
}

void LineReport::show_dates() {
    const LockGuard lock(mutex_);
    dates_ = true;
}

void LineReport::hold() {
    const LockGuard lock(mutex_);
    holding_ = true;
}

void LineReport::flush() {
    const LockGuard lock(mutex_);
    out_.flush();
}

void LineReport::release() {
    const LockGuard lock(mutex_);
    holding_ = false;
    for (const std::string& line : std::exchange(held_, {})) {
        out_ << line;
    }
}

void LineReport::line(const Call& call, const std::string& what, const std::string& text) {
    write(call, {{what, text}});
}

void LineReport::write(const Call& call, const std::vector<Line>& lines) {
    const std::string uuid = uuid_text(call.uuid());
    const LockGuard lock(mutex_);
    for (const Line& each : lines) {
        tell_date();
        out_ << time_of_day() << "  " << uuid << "  " << in_columns(each.what, 13, each.text)
             << '\n';
    }
}

void LineReport::started(const Call& call, const media::Packet& packet) {
    const StartFields& start = *call.start();
    std::string text = start.outbound() ? "outbound" : "inbound";
    text += ", from " + address_text(call.source());
    text += ", reference " + quoted_text(start.call_reference);
    if (start.rule_id_given()) {
        text += ", rule " + std::to_string(start.rule_id);
    }
    if (!start.report_node.empty()) {
        text += ", report to " + start.report_node;
    }
    text += ", " + features_text(packet.features);
    line(call, "start", text + (call.started_late() ? " (late: other packets came before)" : ""));
}

void LineReport::features_changed(const Call& call, const media::Packet& packet) {
    line(call, "control", features_text(packet.features));
}

void LineReport::terminated(const Call& call, const media::Packet& packet) {
    std::string text;
    if (call.start().has_value() && packet.send_time >= call.start()->send_time) {
        text = "after " + duration_text(seconds_between(call.start()->send_time, packet.send_time));
    }
    line(call, "terminate", text);
}

void LineReport::terminate_refused(const Call& call, const media::Packet& /*packet*/) {
    line(call, "terminate", "not believed: sent far ahead of the call's other packets");
}

// Only the first one is reported at once. The end of the call reports the number.
void LineReport::foreign(const Call& call, const sockaddr_in& source) {
    if (call.foreign_packets() == 1) {
        line(call, "foreign",
             "packet from " + address_text(source) + " dropped: the call belongs to " +
                 address_text(call.source()));
    }
}

void LineReport::gap(const Call& call, Side side, const Gap& gap) {
    const CallSide& state = call.side(side);
    const std::uint64_t gaps = state.stats().gaps;
    if (gaps > GAP_LINES_PER_SIDE) {
        return;
    }
    const double lost_ms = 1000 * seconds_of(gap.missing_samples, state.sample_rate());
    std::string text = std::string(name_of(side)) + ": " + counted(gap.lost_packets, "packet") +
                       " lost at " + duration_text(state.seconds_at(gap.position)) + ", " +
                       grouped(static_cast<std::uint64_t>(std::lround(lost_ms))) +
                       " ms filled with silence";
    if (gap.filled_samples < gap.missing_samples) {
        text += " in part only";
    }
    line(call, "gap", text + (gaps == GAP_LINES_PER_SIDE ? "; further gaps are counted" : ""));
}

void LineReport::rate_changed(const Call& call, Side side, const RateChange& change) {
    line(call, "rate change",
         std::string(name_of(side)) + ": from " + std::to_string(change.old_rate) + " to " +
             std::to_string(change.new_rate) + " Hz at " +
             place_text(call.side(side).seconds_at(change.position)));
}

void LineReport::running_changed(const Call& call, Side side, std::uint64_t position) {
    const CallSide& state = call.side(side);
    const std::string running = running_text(state.running());
    line(call, "running",
         std::string(name_of(side)) + ": " + (running.empty() ? "nothing" : running) + " from " +
             place_text(state.seconds_at(position)));
}

void LineReport::activity(const Call& call, Side side, const Activity& activity) {
    line(call, "activity",
         std::string(name_of(side)) + (activity.active ? ": begins at " : ": ends at ") +
             place_text(call.side(side).seconds_at(activity.position)));
}

void LineReport::sample_found(const Call& call, Side side, const FoundSample& sample) {
    const double seconds = call.side(side).seconds_from_begin(sample.position);
    const std::string place =
        seconds < 0 ? place_text(-seconds) + " before the beginning" : place_text(seconds);
    line(call, "sample",
         std::string(name_of(side)) + ": " + quoted_text(sample.name) + " at " + place +
             tools::format(", score %.2f", sample.score));
}

void LineReport::file_failed(const Call& call, const FileReport& file) {
    line(call, "file error", file.path + ": " + file.error);
}

void LineReport::ended(const Call& call, EndReason reason) {
    const bool unannounced = !call.start().has_value();
    const std::size_t failed = call.failed_files().size();
    std::vector<Line> lines = {
        {"end",
         reason_text(reason) +
             (unannounced ? ", its start packet never came, from " + address_text(call.source())
                          : "") +
             foreign_text(call.foreign_packets()) +
             (call.sides_may_be_apart() ? "; its sides may be apart in time" : "") +
             (failed != 0 ? "; " + counted(failed, "file") + " could not be written" : "")}};
    for (const Side side : BOTH_SIDES) {
        if (call.side(side).begun()) {
            lines.push_back({std::string("  ") + name_of(side), side_text(call.side(side))});
        }
    }
    for (const FileReport& file : call.files()) {
        if (file.error.empty()) {
            lines.push_back({"  file", file.path});
        }
    }
    for (const FileReport& file : call.failed_files()) {
        lines.push_back({"  failed", file.path + ": " + file.error});
    }
    write(call, lines);
}

}  // namespace qv::node
