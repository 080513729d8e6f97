// Draws a timeline; see timeline.h.
#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "node/calls/level_meter.h"
#include "node/report/text.h"
#include "node/report/timeline.h"
#include "tools/format.h"
#include "tools/utf8.h"

namespace qv::node {

namespace {

constexpr double WIDTH = 1280;
constexpr double LEFT = 24;
constexpr double PLOT = WIDTH - 2 * LEFT;
constexpr double EVENT_TOP = 76;
constexpr double EVENT_ROW = 17;
constexpr std::size_t EVENT_ROWS = 4;
constexpr double LANE = 130;
constexpr double LANE_TITLE = 22;
constexpr double FIRST_LANE = EVENT_TOP + EVENT_ROWS * EVENT_ROW + 14;
constexpr double SECOND_LANE = FIRST_LANE + LANE + LANE_TITLE + 8;
constexpr double AXIS = SECOND_LANE + LANE + LANE_TITLE + 6;
constexpr double HEIGHT = AXIS + 62;
constexpr std::size_t COLUMNS = 1232;
constexpr double CHARACTER = 6.3;            // Roughly, of the label font.
constexpr double QUIETEST_SCALE = 1000;      // An outline is not magnified beyond this peak.
constexpr int SILENCE_PEAK = 104;            // -50 dB.
constexpr std::size_t SILENCE_COLUMNS = 12;  // Shorter silence is not marked.
constexpr std::size_t LONGEST_LABEL = 100;

constexpr std::array<const char*, SIDE_COUNT> LANE_COLOUR = {"#2563eb", "#0f766e"};

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string number(double value) {
    return tools::format("%.1f", value);
}

// "1:23:45", "3:20" or "12.5 s".
std::string clock_text(double seconds, double step) {
    if (step < 1) {
        return tools::format("%.1f s", seconds);
    }
    const long whole = std::lround(seconds);
    if (seconds < 60) {
        return tools::format("%ld s", whole);
    }
    if (whole < 3600) {
        return tools::format("%ld:%02ld", whole / 60, whole % 60);
    }
    return tools::format("%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
}

// The distance of ticks, in seconds, that gives about ten of them.
double tick_step(double seconds) {
    for (const double step : {0.1, 0.2, 0.5, 1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0,
                              600.0, 900.0, 1800.0, 3600.0, 7200.0}) {
        if (seconds / step <= 14) {
            return step;
        }
    }
    return 3600 * std::ceil(seconds / 14 / 3600);
}

class Picture {
  public:
    explicit Picture(const TimelineData& data) : data_(data), seconds_(length()) {}

    std::string draw() {
        open();
        draw_axis();
        for (const Side side : BOTH_SIDES) {
            draw_lane(side);
        }
        draw_events();
        for (const Side side : BOTH_SIDES) {
            draw_lane_title(side);
        }
        draw_legend();
        out_ += "</svg>\n";
        return std::move(out_);
    }

  private:
    struct Column {
        int lowest = 0;
        int highest = 0;
        double mean = 0;  // Root mean square.
        bool present = false;
    };
    using Columns = std::vector<Column>;

    double length() const {
        double longest = 0.1;
        for (const TimelineData::SideTrace& side : data_.sides) {
            longest = std::max(longest, at(side, side.outline.samples()));
        }
        for (const TimelineData::Event& event : data_.events) {
            longest = std::max(longest, event.seconds);
        }
        return longest;
    }

    // The place of a sample on the axis.
    double at(const TimelineData::SideTrace& side, std::uint64_t sample) const {
        return data_.audio_begin + seconds_of(sample, side.sample_rate);
    }

    double x(double seconds) const { return LEFT + PLOT * seconds / seconds_; }

    void text(double left, double base, const std::string& style, const std::string& words) {
        out_ += "<text x=\"" + number(left) + "\" y=\"" + number(base) + "\" " + style + ">" +
                escaped(words) + "</text>\n";
    }

    void line(double x1, double y1, double x2, double y2, const std::string& style) {
        out_ += "<line x1=\"" + number(x1) + "\" y1=\"" + number(y1) + "\" x2=\"" + number(x2) +
                "\" y2=\"" + number(y2) + "\" " + style + "/>\n";
    }

    // Browsers show the hint under the pointer.
    void box(double left, double top, double width, double height, const std::string& style,
             const std::string& hint = {}) {
        out_ += "<rect x=\"" + number(left) + "\" y=\"" + number(top) + "\" width=\"" +
                number(width) + "\" height=\"" + number(height) + "\" " + style;
        out_ += hint.empty() ? "/>\n" : "><title>" + escaped(hint) + "</title></rect>\n";
    }

    void open() {
        out_ =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " +
            number(WIDTH) + ' ' + number(HEIGHT) + "\" width=\"" + number(WIDTH) + "\" height=\"" +
            number(HEIGHT) +
            "\" font-family=\"Inter, 'DejaVu Sans', Arial, sans-serif\" font-size=\"12\">\n"
            "<defs><pattern id=\"pause\" width=\"6\" height=\"6\" "
            "patternUnits=\"userSpaceOnUse\" patternTransform=\"rotate(45)\">"
            "<rect width=\"6\" height=\"6\" fill=\"#f1f5f9\"/>"
            "<line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"6\" stroke=\"#94a3b8\" "
            "stroke-width=\"1.5\"/></pattern></defs>\n";
        box(0, 0, WIDTH, HEIGHT, "fill=\"#ffffff\"");
        text(LEFT, 30, "font-size=\"18\" font-weight=\"600\" fill=\"#0f172a\"",
             "Call " + data_.title);
        text(LEFT, 50, "fill=\"#475569\" font-size=\"13\"",
             tools::truncate_to_columns(data_.subtitle, TimelineData::SUBTITLE_COLUMNS));
        text(WIDTH - LEFT, 30,
             "font-size=\"18\" font-weight=\"600\" fill=\"#0f172a\" text-anchor=\"end\"",
             duration_text(seconds_));
    }

    void draw_axis() {
        const double step = tick_step(seconds_);
        const auto ticks = static_cast<int>(seconds_ * 1.0001 / step);
        for (int i = 0; i <= ticks; ++i) {
            const double tick = i * step;
            line(x(tick), FIRST_LANE + LANE_TITLE, x(tick), AXIS, "stroke=\"#e2e8f0\"");
            const bool near_end = x(tick) > WIDTH - LEFT - 20;
            text(x(tick), AXIS + 16,
                 std::string("fill=\"#475569\" text-anchor=\"") +
                     (tick == 0  ? "start"
                      : near_end ? "end"
                                 : "middle") +
                     "\"",
                 clock_text(tick, step));
        }
        line(LEFT, AXIS, WIDTH - LEFT, AXIS, "stroke=\"#64748b\"");
    }

    Columns columns_of(const TimelineData::SideTrace& side) const {
        Columns columns(COLUMNS);
        const auto& spans = side.outline.spans();
        for (std::size_t i = 0; i < spans.size(); ++i) {
            const double begin = at(side, i * side.outline.samples_per_span()) / seconds_;
            const double end = at(side, std::min((i + 1) * side.outline.samples_per_span(),
                                                 side.outline.samples())) /
                               seconds_;
            const double mean = std::sqrt(static_cast<double>(spans[i].squares) /
                                          static_cast<double>(side.outline.samples_per_span()));
            const std::size_t first = column(begin);
            const std::size_t last = std::max(first, column(end - 1e-9));
            for (std::size_t c = first; c <= last; ++c) {
                columns[c].lowest = std::min<int>(columns[c].lowest, spans[i].lowest);
                columns[c].highest = std::max<int>(columns[c].highest, spans[i].highest);
                columns[c].mean = std::max(columns[c].mean, mean);
                columns[c].present = true;
            }
        }
        return columns;
    }

    static std::size_t column(double share) {
        const double place = std::clamp(share, 0.0, 1.0) * static_cast<double>(COLUMNS);
        return std::min(COLUMNS - 1, static_cast<std::size_t>(place));
    }

    static double column_x(std::size_t column) {
        return LEFT + PLOT * static_cast<double>(column) / static_cast<double>(COLUMNS);
    }

    // The peak of both sides, so that their heights can be compared.
    double scale() const {
        double peak = QUIETEST_SCALE;
        for (const TimelineData::SideTrace& side : data_.sides) {
            for (const Envelope::Span& span : side.outline.spans()) {
                peak = std::max(
                    {peak, static_cast<double>(span.highest), -static_cast<double>(span.lowest)});
            }
        }
        return peak;
    }

    static double lane_title(Side which) {
        return which == Side::ORIGINATOR ? FIRST_LANE : SECOND_LANE;
    }

    // After the lines of the events, and with a white seam to stand out from them.
    void draw_lane_title(Side which) {
        const std::string seam = "paint-order=\"stroke\" stroke=\"#ffffff\" stroke-width=\"4\" ";
        const double base = lane_title(which) + 14;
        text(LEFT, base,
             seam + "font-weight=\"600\" font-size=\"13\" fill=\"" + LANE_COLOUR[index_of(which)] +
                 "\"",
             name_of(which));
        text(LEFT + 84, base, seam + "fill=\"#475569\"", data_.sides[index_of(which)].summary);
    }

    void draw_lane(Side which) {
        const TimelineData::SideTrace& side = data_.sides[index_of(which)];
        const double top = lane_title(which) + LANE_TITLE;
        const Columns columns = columns_of(side);
        const std::string colour = LANE_COLOUR[index_of(which)];
        box(LEFT, top, PLOT, LANE, "fill=\"none\" stroke=\"#cbd5e1\"");
        draw_silence(columns, top);
        draw_stretches(side, side.pauses, top, "fill=\"url(#pause)\"", "pause of the sender: ");
        draw_stretches(side, side.gaps, top, "fill=\"#dc2626\" fill-opacity=\"0.45\"", "gap: ");
        draw_outline(columns, top, colour);
        draw_gap_flags(side, top);
        draw_late(side, top);
    }

    void draw_silence(const Columns& columns, double top) {
        for (std::size_t begin = 0; begin < columns.size();) {
            std::size_t end = begin;
            while (end < columns.size() && columns[end].present &&
                   columns[end].highest < SILENCE_PEAK && columns[end].lowest > -SILENCE_PEAK) {
                ++end;
            }
            if (end - begin >= SILENCE_COLUMNS) {
                box(column_x(begin), top, column_x(end) - column_x(begin), LANE, "fill=\"#f1f5f9\"",
                    "silence");
            }
            begin = std::max(end, begin + 1);
        }
    }

    void draw_outline(const Columns& columns, double top, const std::string& colour) {
        const double middle = top + LANE / 2;
        const double factor = (LANE / 2 - 4) / scale();
        std::string path;
        std::string core;
        for (std::size_t c = 0; c < columns.size(); ++c) {
            if (!columns[c].present) {
                continue;
            }
            const double left = column_x(c) + 0.5;
            // At least a hair line, so that silence differs from no audio.
            const double high = std::min(middle - 0.4, middle - columns[c].highest * factor);
            const double low = std::max(middle + 0.4, middle - columns[c].lowest * factor);
            path += "M" + number(left) + ' ' + number(high) + 'V' + number(low);
            const double mean = columns[c].mean * factor;
            core += mean < 1 ? std::string()
                             : "M" + number(left) + ' ' + number(middle - mean) + 'V' +
                                   number(middle + mean);
        }
        out_ += "<path d=\"" + path + "\" stroke=\"" + colour + "\" stroke-opacity=\"0.5\"/>\n";
        out_ += "<path d=\"" + core + "\" stroke=\"" + colour + "\"/>\n";
    }

    // Marks that fall on the same place are drawn once.
    void draw_stretches(const TimelineData::SideTrace& side,
                        const std::vector<TimelineData::Stretch>& stretches, double top,
                        const std::string& style, const std::string& what) {
        double drawn_to = -1;
        for (const TimelineData::Stretch& stretch : stretches) {
            const double left = x(at(side, stretch.begin));
            const double right = std::max(left + 1.5, x(at(side, stretch.begin + stretch.length)));
            if (right <= drawn_to + 1) {
                continue;
            }
            drawn_to = right;
            std::string hint = what + duration_text(seconds_of(stretch.length, side.sample_rate)) +
                               " at " + clock_text(at(side, stretch.begin), 0);
            hint += stretch.packets != 0 ? ", " + counted(stretch.packets, "packet") : "";
            box(left, top, right - left, LANE, style, hint);
        }
    }

    // A small triangle over each gap: a narrow band would be overlooked.
    void draw_gap_flags(const TimelineData::SideTrace& side, double top) {
        double last = -100;
        for (const TimelineData::Stretch& gap : side.gaps) {
            const double middle = x(at(side, gap.begin + gap.length / 2));
            if (middle - last < 5) {
                continue;
            }
            last = middle;
            out_ += "<path d=\"M" + number(middle - 4) + ' ' + number(top - 6) + "h8l-4 7z\" " +
                    "fill=\"#dc2626\"/>\n";
        }
    }

    void draw_late(const TimelineData::SideTrace& side, double top) {
        double last = -100;
        for (const std::uint64_t late : side.late) {
            const double place = x(at(side, late));
            if (std::abs(place - last) < 1.5) {
                continue;
            }
            last = place;
            box(place - 1, top + LANE - 16, 3, 16, "fill=\"#f59e0b\"",
                "came too late, at " + clock_text(at(side, late), 0));
        }
    }

    // Each label takes the first row in which it does not run into the one before.
    void draw_events() {
        std::array<double, EVENT_ROWS> row_end{};
        for (const TimelineData::Event& event : data_.events) {
            const std::string label = event.label.size() <= LONGEST_LABEL
                                          ? event.label
                                          : event.label.substr(0, LONGEST_LABEL - 3) + "...";
            const double place = x(event.seconds);
            const double width = CHARACTER * static_cast<double>(label.size()) + 8;
            const bool leftwards = place + width > WIDTH - 4;
            const double begin = leftwards ? place - width : place;
            const auto row = static_cast<std::size_t>(
                std::find_if(row_end.begin(), row_end.end(),
                             [begin](double end) { return end <= begin; }) -
                row_end.begin());
            const double top =
                EVENT_TOP + EVENT_ROW * static_cast<double>(std::min(row, EVENT_ROWS - 1));
            line(place, top - 10, place, AXIS,
                 "stroke=\"#7c3aed\" stroke-dasharray=\"4 3\" stroke-opacity=\"0.8\"");
            out_ += "<circle cx=\"" + number(place) + "\" cy=\"" + number(top - 6) +
                    "\" r=\"3\" fill=\"#7c3aed\"><title>" +
                    escaped(event.label + " at " + clock_text(event.seconds, 0)) +
                    "</title></circle>\n";
            if (row == EVENT_ROWS) {
                continue;
            }
            row_end[row] = begin + width + 6;
            text(leftwards ? place - 6 : place + 6, top - 2,
                 std::string("font-size=\"11.5\" fill=\"#5b21b6\"") +
                     (leftwards ? " text-anchor=\"end\"" : ""),
                 label);
        }
    }

    void draw_legend() {
        struct Entry {
            const char* style;
            const char* words;
        };
        constexpr Entry entries[] = {
            {"fill=\"#f1f5f9\" stroke=\"#cbd5e1\"", "silence"},
            {"fill=\"#dc2626\" fill-opacity=\"0.45\"", "gap: lost audio, filled with silence"},
            {"fill=\"#f59e0b\"", "packet came too late"},
            {"fill=\"url(#pause)\"", "pause of the sender"},
            {"fill=\"#7c3aed\"", "start, feature change, terminate"},
        };
        double left = LEFT;
        for (const Entry& entry : entries) {
            box(left, AXIS + 34, 14, 12, entry.style);
            text(left + 20, AXIS + 44, "fill=\"#475569\"", entry.words);
            left += 44 + CHARACTER * static_cast<double>(std::string(entry.words).size());
        }
        text(WIDTH - LEFT, AXIS + 44, "fill=\"#475569\" text-anchor=\"end\"",
             "height: " + decibel_text(decibels(scale())) +
                 " of full scale; light: peak, dark: power");
    }

    const TimelineData& data_;
    double seconds_;
    std::string out_;
};

}  // namespace

std::string render_timeline(const TimelineData& data) {
    return Picture(data).draw();
}

}  // namespace qv::node
