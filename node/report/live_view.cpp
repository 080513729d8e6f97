#include "node/report/live_view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "node/report/text.h"
#include "tools/utf8.h"

namespace qv::node {

namespace {

constexpr std::size_t HEAD_LINES = 5;
constexpr double METER_BOTTOM = -60;

std::string left(std::string text, std::size_t width) {
    text.append(width - std::min(width, tools::columns_of(text)), ' ');
    return text;
}

std::string right(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, tools::columns_of(text)), ' ') + text;
}

double seconds_of(Micros time) {
    return std::chrono::duration<double>(time).count();
}

// What of a call fits beside each other.
struct Columns {
    std::size_t uuid = 8;   // The first group of its digits.
    std::size_t cells = 7;  // Of a meter.
    bool packets = false;
    bool reference = false;

    std::size_t meter() const { return cells + 7; }
};

constexpr std::size_t ALL_COLUMNS = 124;
constexpr std::size_t SHORTEST_REFERENCE = 20;

Columns columns_for(std::size_t screen) {
    if (screen < ALL_COLUMNS) {
        return {};
    }
    return {36, 10, true, screen >= ALL_COLUMNS + SHORTEST_REFERENCE};
}

std::string level_cell(CallSide& side, std::size_t cells) {
    const double level = side.level.take_recent_db();
    const std::string figure =
        level <= SILENCE_DB ? "--" : std::to_string(std::lround(level)) + " dB";
    return level_meter(level, cells) + right(figure, 7);
}

std::string state_of(const Call& call) {
    if (!call.failed_files.empty()) {
        return "file error";
    }
    if (call.state == CallState::ENDING) {
        return "ending";
    }
    return call.start.has_value() ? "" : "no start";
}

std::string heading(const Columns& columns) {
    std::string text = left("call", columns.uuid) + right("age", 12) + "  features " +
                       left("originator", columns.meter() + 2) +
                       left("terminator", columns.meter());
    text += columns.packets ? right("packets", 10) : "";
    text += right("lost", 7);
    return columns.reference ? left(text, ALL_COLUMNS + 2) + "reference" : text;
}

std::string row(Call& call, Micros now, const Columns& columns) {
    std::uint64_t lost = 0;
    std::uint64_t packets = 0;
    for (const CallSide& side : call.sides) {
        lost += side.tracker.stats().lost();
        packets += side.tracker.stats().packets;
    }
    std::string text = tools::truncate_to_columns(uuid_text(call.uuid), columns.uuid) +
                       right(duration_text(seconds_of(now - call.first_seen)), 12) + "  " +
                       feature_letters(call.features, Side::ORIGINATOR) + ' ' +
                       feature_letters(call.features, Side::TERMINATOR) + "  " +
                       level_cell(call.side(Side::ORIGINATOR), columns.cells) + "  " +
                       level_cell(call.side(Side::TERMINATOR), columns.cells);
    text += columns.packets ? right(grouped(packets), 10) : "";
    text += right(grouped(lost), 7);
    const std::string state = state_of(call);
    text += state.empty() ? "" : "  " + state;
    return columns.reference && call.start.has_value()
               ? left(text, ALL_COLUMNS + 2) + quoted_text(call.start->call_reference)
               : text;
}

std::vector<Call*> oldest_first(CallTable& calls) {
    std::vector<Call*> all;
    calls.for_each([&all](Call& call) { all.push_back(&call); });
    std::sort(all.begin(), all.end(), [](const Call* one, const Call* two) {
        return one->first_seen != two->first_seen ? one->first_seen < two->first_seen
                                                  : one->uuid < two->uuid;
    });
    return all;
}

// What fits of the lines; the rest of each line on the screen is cleared.
std::string joined(const std::vector<std::string>& lines, ScreenSize size) {
    std::string text;
    for (std::size_t i = 0; i < lines.size() && i < size.rows; ++i) {
        text +=
            (i == 0 ? "" : "\r\n") + tools::truncate_to_columns(lines[i], size.columns) + "\x1b[K";
    }
    return text;
}

std::uint64_t sum_of_drops(const Totals& totals) {
    std::uint64_t sum = 0;
    for (const std::uint64_t count : totals.dropped) {
        sum += count;
    }
    return sum;
}

}  // namespace

std::string feature_letters(media::features16_t features, Side side) {
    struct Letter {
        unsigned mask;
        char active;
        char supported;
    };
    constexpr std::array<Letter, 3> letters = {{
        {media::feature_mask(media::Features::AudioActivity), 'A', 'a'},
        {media::feature_mask(media::Features::SampleDetection), 'D', 'd'},
        {media::FEATURE_RECORD, 'R', 'r'},
    }};
    const unsigned bits =
        side == Side::ORIGINATOR ? media::ORIGINATOR_BITS : media::TERMINATOR_BITS;
    std::string text;
    for (const Letter& letter : letters) {
        const bool supported = (features.supported & letter.mask & bits) != 0;
        const bool active = (features.active & letter.mask & bits) != 0;
        text += !supported ? '-' : active ? letter.active : letter.supported;
    }
    return text;
}

std::string level_meter(double level_db, std::size_t cells) {
    const double share = std::clamp((level_db - METER_BOTTOM) / -METER_BOTTOM, 0.0, 1.0);
    const auto filled = static_cast<std::size_t>(std::lround(share * static_cast<double>(cells)));
    std::string text;
    for (std::size_t i = 0; i < cells; ++i) {
        text += i < filled ? "\u2588" : "\u00b7";
    }
    return text;
}

std::string LiveView::frame(CallTable& calls, const LiveTotals& totals, Micros now,
                            ScreenSize size) {
    std::vector<std::string> lines = head(calls, totals, now);
    const Columns columns = columns_for(size.columns);
    lines.push_back(heading(columns));

    const std::vector<Call*> all = oldest_first(calls);
    note_file_errors(all);
    const std::size_t foot_lines = last_file_error_.empty() ? 2 : 3;
    const std::size_t room =
        size.rows > HEAD_LINES + foot_lines ? size.rows - HEAD_LINES - foot_lines : 0;
    const std::size_t count = std::min(room, all.size());
    for (std::size_t i = 0; i < count; ++i) {
        lines.push_back(row(*all[i], now, columns));
    }
    lines.push_back(count < all.size() ? "and " + counted(all.size() - count, "more call")
                                       : std::string());
    if (!last_file_error_.empty()) {
        lines.push_back("file error: " + last_file_error_);
    }
    lines.emplace_back("features: A audio activity, D detection, R recording; small: off");
    return joined(lines, size);
}

std::vector<std::string> LiveView::head(const CallTable& calls, const LiveTotals& totals,
                                        Micros now) {
    const double span = seconds_of(now - last_time_);
    const auto rate = span > 0 ? static_cast<double>(totals.received - last_received_) / span : 0;
    last_received_ = totals.received;
    last_time_ = now;

    const Totals& counts = calls.totals();
    const std::uint64_t late = counts.dropped[static_cast<std::size_t>(Drop::LATE)];
    const std::uint64_t lost = counts.lost_packets > late ? counts.lost_packets - late : 0;
    return {"quorvane-node on " + totals.address + ", up " +
                duration_text(seconds_of(totals.uptime)) + "   (ends with Ctrl-C)",
            counted(calls.size(), "call") + " now, " + grouped(counts.calls_ended) + " ended, " +
                grouped(static_cast<std::uint64_t>(rate)) + " packets/s, " +
                counted(totals.received, "packet"),
            grouped(lost) + " lost, " + grouped(sum_of_drops(counts)) + " not used, " +
                grouped(totals.malformed) + " malformed, " + grouped(totals.overflowed) +
                " lost in the socket, " + counted(counts.file_errors, "file error"),
            ""};
}

// The calls on the screen tell which file; it stays there when they have gone.
void LiveView::note_file_errors(const std::vector<Call*>& calls) {
    for (const Call* call : calls) {
        if (!call->failed_files.empty()) {
            const FileReport& file = call->failed_files.back();
            last_file_error_ = file.path + ": " + file.error;
        }
    }
}

}  // namespace qv::node
