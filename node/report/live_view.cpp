#include "node/report/live_view.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <tuple>
#include <utility>
#include <vector>

#include "node/report/text.h"
#include "tools/format.h"
#include "tools/utf8.h"

namespace qv::node {

namespace {

constexpr std::size_t HEAD_LINES = 5;
constexpr double METER_BOTTOM = -60;
constexpr std::ptrdiff_t FAR = 1'000'000'000;  // Beyond all calls.
constexpr std::size_t LONGEST_FILTER = 40;

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

// How badly a call needs to be looked at; 0 for not at all.
int trouble_of(const CallSnapshot& call) {
    if (!call.failed_files.empty()) {
        return 4;
    }
    if (call.lost_packets() != 0) {
        return 3;
    }
    if (!call.start.has_value()) {
        return 2;
    }
    return call.foreign_packets != 0 ? 1 : 0;
}

std::string state_of(const CallSnapshot& call) {
    if (!call.failed_files.empty()) {
        return "file error";
    }
    if (call.ending) {
        return "ending";
    }
    return call.foreign_packets != 0 ? "strangers" : "";
}

// The features of both sides, which nobody knows before the start packet.
std::string features_cell(const CallSnapshot& call) {
    return call.start.has_value() ? feature_letters(call.features, Side::ORIGINATOR) + ' ' +
                                        feature_letters(call.features, Side::TERMINATOR) + ' '
                                  : "no start";
}

bool contains_ignoring_case(const std::string& text, const std::string& part) {
    const auto same = [](char one, char two) {
        return std::tolower(static_cast<unsigned char>(one)) ==
               std::tolower(static_cast<unsigned char>(two));
    };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end();
}

bool matches(const CallSnapshot& call, const std::string& filter) {
    const std::array<std::string, 5> texts = {
        uuid_text(call.uuid), address_text(call.source), state_of(call),
        call.start.has_value() ? call.start->call_reference : "no start",
        call.lost_packets() != 0 ? "lost" : ""};
    return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
        return contains_ignoring_case(text, filter);
    });
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

const char* activity_mark(bool active) {
    return active ? "\u25cf" : " ";
}

std::string row(const CallSnapshot& call, Micros now, const Columns& columns) {
    const auto& [one, another] = call.sides;
    std::string text = tools::truncate_to_columns(uuid_text(call.uuid), columns.uuid) +
                       right(duration_text(seconds_of(now - call.first_seen)), 12) + "  " +
                       features_cell(call) + activity_mark(one.active) +
                       level_cell(one.level_db, columns.cells) + ' ' +
                       activity_mark(another.active) + level_cell(another.level_db, columns.cells);
    text += columns.packets ? right(grouped(one.stats.packets + another.stats.packets), 10) : "";
    text += right(grouped(call.lost_packets()), 7);
    std::string state = state_of(call);
    if (state.empty() && !call.samples.empty()) {
        const std::string& sample = call.samples.back().name;
        state = columns.source ? quoted_text(sample, 9) : quoted_text(sample);
    }
    text += state.empty() ? "" : "  " + state;
    text = columns.source ? left(text, ALL_COLUMNS + 2) + address_text(call.source) : text;
    return columns.reference && call.start.has_value()
               ? left(text, ALL_COLUMNS + SOURCE + 2) + quoted_text(call.start->call_reference)
               : text;
}

std::string side_counts(const SideSnapshot& side) {
    const ReorderBuffer::Stats& stats = side.stats;
    std::string text = "  " + counted(stats.packets, "packet") + ", " + grouped(stats.lost()) +
                       " lost in " + counted(stats.gaps, "gap");
    append_count(text, stats.reordered, "reordered");
    append_count(text, stats.duplicates, "duplicated");
    append_count(text, stats.late, "too late");
    append_count(text, stats.implausible, "implausible");
    append_count(text, side.pauses, "pauses of the sender");
    return text;
}

void add_start(std::vector<std::string>& lines, const CallSnapshot& call, Micros now) {
    lines.push_back("from " + address_text(call.source) + ", age " +
                    duration_text(seconds_of(now - call.first_seen)) + ", " +
                    counted(call.control_packets, "control packet") + ", " +
                    counted(call.foreign_packets, "packet") + " of strangers");
    if (!call.start.has_value()) {
        lines.emplace_back("no start: the start packet has not come");
        return;
    }
    const StartFields& start = *call.start;
    lines.push_back(std::string(start.outbound() ? "outbound" : "inbound") +
                    (start.rule_id_given() ? ", rule " + std::to_string(start.rule_id) : "") +
                    (start.report_node.empty() ? "" : ", report node " + start.report_node));
    lines.push_back("reference " + quoted_text(start.call_reference));
    lines.push_back(features_text(call.features));
}

void add_side(std::vector<std::string>& lines, Side which, const SideSnapshot& side) {
    lines.emplace_back();
    if (!side.begun) {
        lines.push_back(std::string(name_of(which)) + ": no audio");
        return;
    }
    const std::string running = running_text(side.running);
    lines.push_back(std::string(name_of(which)) + ": leg " + std::to_string(side.leg) + ", " +
                    (side.sample_rate != 0 ? std::to_string(side.sample_rate) + " Hz"
                                           : std::string("rate not known yet")) +
                    ", " + duration_text(side.seconds) + (running.empty() ? "" : ", " + running));
    lines.push_back("  " + level_cell(side.level_db, 30) + (side.active ? "  \u25cf active" : ""));
    lines.push_back(side_counts(side));
}

// Everything about the call, in lines.
std::vector<std::string> whole_call(const CallSnapshot& call, Micros now) {
    std::vector<std::string> lines = {"call " + uuid_text(call.uuid) + "  " + state_of(call)};
    add_start(lines, call, now);
    for (const Side side : BOTH_SIDES) {
        add_side(lines, side, call.side(side));
    }
    for (const CallSnapshot::Sample& sample : call.samples) {
        lines.push_back("sample " + quoted_text(sample.name) + " on " + name_of(sample.side) +
                        tools::format(" at %.3f s", sample.seconds));
    }
    for (const FileReport& file : call.failed_files) {
        lines.push_back("file error: " + file.path + ": " + file.error);
    }
    return lines;
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

void LiveView::report_file_error(const std::string& error) {
    const LockGuard lock(mutex_);
    last_file_error_ = error;
}

std::string LiveView::last_file_error() {
    const LockGuard lock(mutex_);
    return last_file_error_;
}

// Those that match the filter.
LiveView::Rows LiveView::sorted() const {
    Rows all;
    calls_.for_each([&](const CallSnapshot& call) {
        if (filter_.empty() || matches(call, filter_)) {
            all.push_back(&call);
        }
    });
    const auto rank = [this](const CallSnapshot& call) {
        const bool by_age = order_ == Order::AGE;
        return std::make_tuple(order_ == Order::TROUBLE ? -trouble_of(call) : 0,
                               by_age ? 0 : -static_cast<std::int64_t>(call.lost_packets()),
                               call.first_seen, call.uuid);
    };
    std::sort(all.begin(), all.end(), [&](const CallSnapshot* one, const CallSnapshot* another) {
        return rank(*one) < rank(*another);
    });
    return all;
}

std::string LiveView::frame(const NodeFigures& figures, Micros now, ScreenSize size) {
    Lines lines = head(figures, now);
    const CallSnapshot* const whole = whole_ ? selected_call() : nullptr;
    whole_ = whole != nullptr;
    if (whole_) {
        add_call(lines, *whole, now, size);
    } else {
        add_list(lines, now, size);
    }
    return joined(lines, size);
}

void LiveView::add_list(Lines& lines, Micros now, ScreenSize size) {
    const Columns columns = columns_for(size.columns);
    lines.push_back({heading(columns)});
    const Rows all = sorted();
    const std::string file_error = last_file_error();
    const std::size_t foot_lines = file_error.empty() ? 2 : 3;
    const std::size_t taken = HEAD_LINES + foot_lines;
    const std::size_t room = size.rows > taken ? size.rows - taken : 0;
    room_ = std::max<std::size_t>(room, 1);
    select(all);
    const std::size_t end = std::min(top_ + room, all.size());
    for (std::size_t i = top_; i < end; ++i) {
        lines.push_back({row(*all[i], now, columns), style_of(*all[i])});
    }
    lines.push_back({place_text(top_, end, all.size())});
    if (!file_error.empty()) {
        lines.push_back({"file error: " + file_error});
    }
    lines.push_back({"features: A audio activity, D detection, R recording; small: off" +
                     std::string(keys_ ? "; \u25cf active" : "")});
}

// Finds the selected call among those of the list, moves on by what the keys said, and scrolls
// so that it is seen.
void LiveView::select(const Rows& all) {
    const std::ptrdiff_t moved = std::exchange(moved_, 0);
    if (all.empty() || (!selected_.has_value() && moved == 0)) {
        top_ = 0;
        return;
    }
    const auto found = std::find_if(all.begin(), all.end(), [this](const CallSnapshot* call) {
        return selected_.has_value() && call->uuid == *selected_;
    });
    const std::ptrdiff_t before = selected_.has_value() ? 0 : -1;
    const std::ptrdiff_t at =
        found != all.end() ? found - all.begin() : static_cast<std::ptrdiff_t>(selected_row_);
    selected_row_ = static_cast<std::size_t>(std::clamp(
        at + before + moved, std::ptrdiff_t{0}, static_cast<std::ptrdiff_t>(all.size()) - 1));
    selected_ = all[selected_row_]->uuid;
    top_ =
        std::clamp(top_, selected_row_ + 1 > room_ ? selected_row_ + 1 - room_ : 0, selected_row_);
    top_ = std::min(top_, all.size() > room_ ? all.size() - room_ : 0);
}

const CallSnapshot* LiveView::selected_call() const {
    const CallSnapshot* selected = nullptr;
    calls_.for_each([&](const CallSnapshot& call) {
        if (selected_.has_value() && call.uuid == *selected_) {
            selected = &call;
        }
    });
    return selected;
}

void LiveView::add_call(Lines& lines, const CallSnapshot& call, Micros now, ScreenSize size) {
    const std::vector<std::string> whole = whole_call(call, now);
    const std::size_t room = size.rows > lines.size() ? size.rows - lines.size() : 0;
    room_ = std::max<std::size_t>(room, 1);
    const std::ptrdiff_t last = std::max<std::ptrdiff_t>(
        0, static_cast<std::ptrdiff_t>(whole.size()) - static_cast<std::ptrdiff_t>(room));
    whole_top_ = static_cast<std::size_t>(
        std::clamp(static_cast<std::ptrdiff_t>(whole_top_) + std::exchange(moved_, 0),
                   std::ptrdiff_t{0}, last));
    for (std::size_t i = whole_top_; i < whole.size() && i < whole_top_ + room; ++i) {
        lines.push_back({whole[i], i == 0 ? style_of(call) : ""});
    }
}

std::string LiveView::place_text(std::size_t first, std::size_t end, std::size_t matching) const {
    if (!keys_) {
        return end < matching ? "and " + counted(matching - end, "more call") : std::string();
    }
    const std::string of = grouped(matching) + (filter_.empty() ? "" : " that match the filter");
    return end == first ? counted(matching, "call") + (filter_.empty() ? "" : " match the filter")
                        : "calls " + grouped(first + 1) + " to " + grouped(end) + " of " + of;
}

// Reverse for the selected call; else red, yellow and faint, by what there is to look at.
const char* LiveView::style_of(const CallSnapshot& call) const {
    if (selected_.has_value() && call.uuid == *selected_ && !whole_) {
        return "\x1b[7m";
    }
    if (!colour_) {
        return "";
    }
    switch (trouble_of(call)) {
        case 0:
            return call.ending ? "\x1b[2m" : "";
        case 4:
            return "\x1b[31m";
        default:
            return "\x1b[33m";
    }
}

// The lines that fit the screen. The rest of each screen line is cleared.
std::string LiveView::joined(const Lines& lines, ScreenSize size) {
    std::string text;
    for (std::size_t i = 0; i < lines.size() && i < size.rows; ++i) {
        const std::string line = tools::truncate_to_columns(lines[i].text, size.columns);
        const std::string style = lines[i].style;
        text += i == 0 ? "" : "\r\n";
        text += style;
        text += line;
        text += style.empty() ? "\x1b[K" : "\x1b[0m\x1b[K";
    }
    return text;
}

void LiveView::set_ending(std::string waits_for) {
    ending_ = std::move(waits_for);
    typing_ = false;  // Keys are keys again.
}

std::string LiveView::key_line() const {
    if (!ending_.empty()) {
        return "ending: waits for " + ending_ + (keys_ ? "; q or Ctrl-C: now" : "; Ctrl-C: now");
    }
    if (typing_) {
        return "filter: " + filter_ + "_   Enter keeps it, Escape drops it";
    }
    if (!keys_) {
        return {};
    }
    if (whole_) {
        return "Escape: all calls   arrows: scroll   q: quit";
    }
    const char* const order = order_ == Order::TROUBLE ? "trouble"
                              : order_ == Order::LOSS  ? "loss"
                                                       : "age";
    return std::string("by ") + order +
           "; t trouble, l loss, a age   arrows, Enter: one call   / filter   q quit" +
           (filter_.empty() ? "" : "   filter: " + filter_);
}

LiveView::Lines LiveView::head(const NodeFigures& figures, Micros now) {
    const double span = seconds_of(now - last_time_);
    const auto rate = span > 0 ? static_cast<double>(figures.received - last_received_) / span : 0;
    last_received_ = figures.received;
    last_time_ = now;

    const Totals& totals = figures.totals;
    const std::uint64_t late = totals.dropped_for(Drop::LATE);
    const std::uint64_t lost = totals.lost_packets > late ? totals.lost_packets - late : 0;
    return {{"quorvane-node on " + figures.address + ", up " +
             duration_text(seconds_of(figures.uptime)) + "   (ends with Ctrl-C)"},
            {counted(calls_.size(), "call") + " now, " + grouped(totals.calls_ended) + " ended, " +
             grouped(static_cast<std::uint64_t>(rate)) + " packets/s, " +
             counted(figures.received, "packet")},
            {grouped(lost) + " lost, " + grouped(sum_of_drops(totals)) + " not used, " +
             grouped(figures.all_malformed()) + " malformed, " + grouped(figures.overflowed) +
             " lost in the socket, " + counted(totals.file_errors, "file error")},
            {key_line()}};
}

void LiveView::press(const Key& key) {
    if (typing_) {
        press_in_filter(key);
        return;
    }
    switch (key.kind) {
        case Key::Kind::UP:
            move(-1);
            break;
        case Key::Kind::DOWN:
            move(1);
            break;
        case Key::Kind::PAGE_UP:
            move(-static_cast<std::ptrdiff_t>(room_));
            break;
        case Key::Kind::PAGE_DOWN:
            move(static_cast<std::ptrdiff_t>(room_));
            break;
        case Key::Kind::HOME:
            move(-FAR);
            break;
        case Key::Kind::END:
            move(FAR);
            break;
        case Key::Kind::ENTER:
            show_whole();
            break;
        case Key::Kind::ESCAPE:
        case Key::Kind::BACKSPACE:
            step_back();
            break;
        case Key::Kind::CHARACTER:
            press_letter(key.character);
            break;
    }
}

void LiveView::move(std::ptrdiff_t rows) {
    moved_ = std::clamp(moved_ + rows, -FAR, FAR);
}

// The selected call, or the first one.
void LiveView::show_whole() {
    if (!selected_.has_value()) {
        moved_ = 1;
        select(sorted());
    }
    whole_ = selected_.has_value();
    whole_top_ = 0;
}

// From one call to all; from there to no filter; from there to no selected call.
void LiveView::step_back() {
    moved_ = 0;
    if (std::exchange(whole_, false)) {
        return;
    }
    if (filter_.empty()) {
        selected_.reset();
    }
    filter_.clear();
}

void LiveView::press_letter(char letter) {
    switch (letter) {
        case 'q':
            quit_ = true;
            break;
        case 't':
            order_ = Order::TROUBLE;
            break;
        case 'l':
            order_ = Order::LOSS;
            break;
        case 'a':
            order_ = Order::AGE;
            break;
        case '/':
            typing_ = !whole_;
            break;
        case 'j':
            move(1);
            break;
        case 'k':
            move(-1);
            break;
        case ' ':
            move(static_cast<std::ptrdiff_t>(room_));
            break;
        default:
            break;
    }
}

void LiveView::press_in_filter(const Key& key) {
    if (key.kind == Key::Kind::CHARACTER && filter_.size() < LONGEST_FILTER) {
        filter_ += key.character;
    } else if (key.kind == Key::Kind::BACKSPACE && !filter_.empty()) {
        filter_.pop_back();
    } else if (key.kind == Key::Kind::ENTER) {
        typing_ = false;
    } else if (key.kind == Key::Kind::ESCAPE) {
        typing_ = false;
        filter_.clear();
    }
}

}  // namespace qv::node
