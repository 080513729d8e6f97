#include "node/report/live_view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "node/calls/call.h"
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

// The columns of a call that fit the width of the screen.
struct Columns {
    std::size_t uuid = 8;   // The first group of its digits.
    std::size_t cells = 7;  // Of a level meter.
    bool packets = false;
    bool source = false;
    bool reference = false;

    std::size_t meter() const { return cells + 7; }
};

constexpr std::size_t ALL_COLUMNS = 124;
constexpr std::size_t SOURCE = 23;  // "255.255.255.255:65535", and a space on either side.
constexpr std::size_t SHORTEST_REFERENCE = 20;

Columns columns_for(std::size_t screen) {
    if (screen < ALL_COLUMNS) {
        return {};
    }
    return {36, 10, true, screen >= ALL_COLUMNS + SOURCE,
            screen >= ALL_COLUMNS + SOURCE + SHORTEST_REFERENCE};
}

std::string level_cell(double level, std::size_t cells) {
    const std::string figure = level <= SILENCE_DB ? "--" : decibel_text(level);
    return level_meter(level, cells) + right(figure, 7);
}

std::string state_of(const Call& call) {
    if (!call.failed_files().empty()) {
        return "file error";
    }
    if (call.ending()) {
        return "ending";
    }
    return call.start().has_value() ? "" : "no start";
}

std::string heading(const Columns& columns) {
    std::string text = left("call", columns.uuid) + right("age", 12) + "  features " +
                       left("originator", columns.meter() + 2) +
                       left("terminator", columns.meter());
    text += columns.packets ? right("packets", 10) : "";
    text += right("lost", 7);
    text = columns.source ? left(text, ALL_COLUMNS + 2) + "source" : text;
    return columns.reference ? left(text, ALL_COLUMNS + SOURCE + 2) + "reference" : text;
}

std::string row(const Call& call, const std::array<double, SIDE_COUNT>& levels, Micros now,
                const Columns& columns) {
    std::uint64_t lost = 0;
    std::uint64_t packets = 0;
    for (const Side side : BOTH_SIDES) {
        lost += call.side(side).stats().lost();
        packets += call.side(side).stats().packets;
    }
    std::string text = tools::truncate_to_columns(uuid_text(call.uuid()), columns.uuid) +
                       right(duration_text(seconds_of(now - call.first_seen())), 12) + "  " +
                       feature_letters(call.features(), Side::ORIGINATOR) + ' ' +
                       feature_letters(call.features(), Side::TERMINATOR) + "  " +
                       level_cell(levels[0], columns.cells) + "  " +
                       level_cell(levels[1], columns.cells);
    text += columns.packets ? right(grouped(packets), 10) : "";
    text += right(grouped(lost), 7);
    const std::string state = state_of(call);
    text += state.empty() ? "" : "  " + state;
    text = columns.source ? left(text, ALL_COLUMNS + 2) + address_text(call.source()) : text;
    return columns.reference && call.start().has_value()
               ? left(text, ALL_COLUMNS + SOURCE + 2) + quoted_text(call.start()->call_reference)
               : text;
}

// Returns the lines that fit the screen. The rest of each screen line is cleared.
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

// A call on the screen, and its levels since the last frame.
class LiveView::LiveCall : public CallListener {
  public:
    LiveCall(LiveView& view, const Call& call) : view_(view), call_(call) {
        view_.calls_.insert(this);
    }
    ~LiveCall() override { view_.calls_.erase(this); }

    void audio(const Call& /*call*/, Side side, const Audio& audio) override {
        levels_[index_of(side)].add(audio.samples, audio.count);
    }

    void file_failed(const Call& /*call*/, const FileReport& file) override {
        view_.last_file_error_ = file.path + ": " + file.error;
    }

    const Call& call() const { return call_; }
    std::string take_row(Micros now, const Columns& columns) {
        return row(call_, {levels_[0].take_recent_db(), levels_[1].take_recent_db()}, now, columns);
    }

  private:
    LiveView& view_;
    const Call& call_;
    std::array<LevelMeter, SIDE_COUNT> levels_;
};

std::unique_ptr<CallListener> LiveView::begin_call(Call& call) {
    return std::make_unique<LiveCall>(*this, call);
}

std::vector<LiveView::LiveCall*> LiveView::oldest_first() const {
    std::vector<LiveCall*> all(calls_.begin(), calls_.end());
    std::sort(all.begin(), all.end(), [](const LiveCall* one, const LiveCall* two) {
        return one->call().first_seen() != two->call().first_seen()
                   ? one->call().first_seen() < two->call().first_seen()
                   : one->call().uuid() < two->call().uuid();
    });
    return all;
}

std::string LiveView::frame(const NodeFigures& figures, Micros now, ScreenSize size) {
    std::vector<std::string> lines = head(figures, now);
    const Columns columns = columns_for(size.columns);
    lines.push_back(heading(columns));

    const std::vector<LiveCall*> all = oldest_first();
    const std::size_t foot_lines = last_file_error_.empty() ? 2 : 3;
    const std::size_t room =
        size.rows > HEAD_LINES + foot_lines ? size.rows - HEAD_LINES - foot_lines : 0;
    const std::size_t count = std::min(room, all.size());
    for (std::size_t i = 0; i < count; ++i) {
        lines.push_back(all[i]->take_row(now, columns));
    }
    lines.push_back(count < all.size() ? "and " + counted(all.size() - count, "more call")
                                       : std::string());
    if (!last_file_error_.empty()) {
        lines.push_back("file error: " + last_file_error_);
    }
    lines.emplace_back("features: A audio activity, D detection, R recording; small: off");
    return joined(lines, size);
}

std::vector<std::string> LiveView::head(const NodeFigures& figures, Micros now) {
    const double span = seconds_of(now - last_time_);
    const auto rate = span > 0 ? static_cast<double>(figures.received - last_received_) / span : 0;
    last_received_ = figures.received;
    last_time_ = now;

    const Totals& totals = figures.totals;
    const std::uint64_t late = totals.dropped_for(Drop::LATE);
    const std::uint64_t lost = totals.lost_packets > late ? totals.lost_packets - late : 0;
    return {"quorvane-node on " + figures.address + ", up " +
                duration_text(seconds_of(figures.uptime)) + "   (ends with Ctrl-C)",
            counted(calls_.size(), "call") + " now, " + grouped(totals.calls_ended) + " ended, " +
                grouped(static_cast<std::uint64_t>(rate)) + " packets/s, " +
                counted(figures.received, "packet"),
            grouped(lost) + " lost, " + grouped(sum_of_drops(totals)) + " not used, " +
                grouped(figures.all_malformed()) + " malformed, " + grouped(figures.overflowed) +
                " lost in the socket, " + counted(totals.file_errors, "file error"),
            ""};
}

}  // namespace qv::node
