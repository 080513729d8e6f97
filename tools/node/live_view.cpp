#include "tools/node/live_view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "tools/node/text.h"

namespace qv::tools::node {

namespace {

constexpr std::size_t CELLS = 10;
constexpr std::size_t HEAD_LINES = 4;
constexpr std::size_t FOOT_LINES = 2;
constexpr double METER_BOTTOM = -60;

// Widths count characters, not bytes: the meters are not ASCII.
std::size_t width_of(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::string left(std::string text, std::size_t width) {
    text.append(width - std::min(width, width_of(text)), ' ');
    return text;
}

std::string right(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, width_of(text)), ' ') + text;
}

std::string cut(const std::string& text, std::size_t width) {
    std::size_t characters = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80 && ++characters > width) {
            return text.substr(0, i);
        }
    }
    return text;
}

double seconds_of(Micros time) {
    return std::chrono::duration<double>(time).count();
}

std::string level_cell(CallSide& side) {
    const double level = side.level.take_recent_db();
    const std::string figure =
        level <= SILENCE_DB ? "--" : std::to_string(std::lround(level)) + " dB";
    return level_meter(level, CELLS) + ' ' + right(figure, 6);
}

std::string row(Call& call, Micros now) {
    std::uint64_t lost = 0;
    std::uint64_t packets = 0;
    for (const CallSide& side : call.sides) {
        lost += side.tracker.stats().lost();
        packets += side.tracker.stats().packets;
    }
    const char* state = call.state == CallState::ENDING ? "ending"
                        : !call.start.has_value()       ? "no start"
                                                        : "";
    return left(uuid_text(call.uuid), 37) +
           right(duration_text(seconds_of(now - call.first_seen)), 12) + "  " +
           feature_letters(call.features, Side::ORIGINATOR) + ' ' +
           feature_letters(call.features, Side::TERMINATOR) + "  " +
           level_cell(call.side(Side::ORIGINATOR)) + "  " +
           level_cell(call.side(Side::TERMINATOR)) + right(grouped(packets), 10) +
           right(grouped(lost), 7) + "  " + state;
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
    const double span = seconds_of(now - last_time_);
    const auto rate = span > 0 ? static_cast<double>(totals.received - last_received_) / span : 0;
    last_received_ = totals.received;
    last_time_ = now;

    const Totals& counts = calls.totals();
    std::vector<std::string> lines;
    lines.push_back("quorvane-node on " + totals.address + ", up " +
                    duration_text(seconds_of(totals.uptime)) + "   (ends with Ctrl-C)");
    lines.push_back(counted(calls.size(), "call") + " now, " + grouped(counts.calls_ended) +
                    " ended, " + grouped(static_cast<std::uint64_t>(rate)) + " packets/s, " +
                    counted(totals.received, "packet") + ", " + grouped(counts.lost_packets) +
                    " lost, " + grouped(sum_of_drops(counts)) + " not used, " +
                    grouped(totals.malformed) + " malformed, " + grouped(totals.overflowed) +
                    " lost in the socket");
    lines.emplace_back();
    lines.push_back(left("call", 37) + right("age", 12) + "  features " + left("originator", 19) +
                    left("terminator", 17) + right("packets", 10) + right("lost", 7));

    std::vector<Call*> shown;
    calls.for_each([&shown](Call& call) { shown.push_back(&call); });
    std::sort(shown.begin(), shown.end(), [](const Call* one, const Call* two) {
        return one->first_seen != two->first_seen ? one->first_seen < two->first_seen
                                                  : one->uuid < two->uuid;
    });
    const std::size_t room =
        size.rows > HEAD_LINES + FOOT_LINES ? size.rows - HEAD_LINES - FOOT_LINES : 0;
    const std::size_t count = std::min(room, shown.size());
    for (std::size_t i = 0; i < count; ++i) {
        lines.push_back(row(*shown[i], now));
    }
    lines.push_back(count < shown.size() ? "and " + counted(shown.size() - count, "more call")
                                         : std::string());
    lines.emplace_back("features: A audio activity, D detection, R recording; small: off");

    std::string text;
    for (std::size_t i = 0; i < lines.size() && i < size.rows; ++i) {
        text += (i == 0 ? "" : "\r\n") + cut(lines[i], size.columns);
        text += "\x1b[K";
    }
    return text;
}

}  // namespace qv::tools::node
