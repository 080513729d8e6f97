// Draws a timeline; see timeline.h.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "node/calls/level_meter.h"
#include "node/report/call_clock.h"
#include "node/report/svg_canvas.h"
#include "node/report/text.h"
#include "node/report/timeline.h"
#include "tools/format.h"

namespace qv::node {

namespace {

using Anchor = SvgCanvas::Anchor;
using Font = SvgCanvas::Font;
using Layer = SvgCanvas::Layer;

constexpr double WIDTH = 1280;
constexpr double LEFT = 24;
constexpr double PLOT = WIDTH - 2 * LEFT;
constexpr double LABELS_TOP = 90;  // Baseline of the first row of labels.
constexpr double LABEL_ROW = 17;
constexpr std::size_t MOST_EVENT_ROWS = 12;
constexpr std::size_t MOST_SAMPLE_ROWS = 6;
constexpr double LANE = 130;
constexpr double LANE_TITLE = 28;
constexpr double BAND = 8;  // Height of the band of audio activity.
constexpr std::size_t COLUMNS = 1232;
constexpr double QUIETEST_SCALE = 1000;      // Outlines are not magnified beyond this peak.
constexpr int SILENCE_PEAK = 104;            // -50 dB.
constexpr std::size_t SILENCE_COLUMNS = 12;  // Shorter silence is not marked.
constexpr std::size_t MOST_HINTS = 10;       // Of labels that did not fit.

constexpr std::array<const char*, SIDE_COUNT> LANE_COLOUR = {"#2563eb", "#0f766e"};
constexpr Font TITLE_FONT = {18, "#0f172a", true};
constexpr Font TEXT_FONT = {13, "#475569", false};
constexpr Font SMALL_FONT = {12, "#475569", false};

// The labels of events, and how they look.
struct LabelStyle {
    Font font;
    const char* mark;  // Attributes of the mark before the label.
    const char* line;
};
constexpr LabelStyle EVENT_STYLE = {
    {11.5, "#5b21b6", false},
    "fill=\"#7c3aed\"",
    "stroke=\"#7c3aed\" stroke-dasharray=\"4 3\" stroke-opacity=\"0.8\""};
constexpr LabelStyle SAMPLE_STYLE = {
    {11.5, "#9a3412", false}, "fill=\"#c2410c\"", "stroke=\"#c2410c\" stroke-width=\"1.4\""};

constexpr const char* HEARD_STYLE = "fill=\"#dcfce7\"";
constexpr const char* ACTIVE_STYLE = "fill=\"#16a34a\"";

// "1:23:45", "3:20" or "12 s"; with tenths for steps below a second: "3:20.5", "12.5 s".
std::string clock_text(double seconds, double step) {
    if (step < 1 && seconds < 59.95) {
        return tools::format("%.1f s", seconds);
    }
    if (step < 1) {
        const double minutes = std::floor((seconds + 0.05) / 60);
        return tools::format("%.0f:%04.1f", minutes, std::max(0.0, seconds - 60 * minutes));
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

// Returns the distance of ticks, in seconds, that gives about ten ticks.
double tick_step(double seconds) {
    for (const double step : {0.1, 0.2, 0.5, 1.0, 2.0, 5.0, 10.0, 15.0, 30.0, 60.0, 120.0, 300.0,
                              600.0, 900.0, 1800.0, 3600.0, 7200.0}) {
        if (seconds / step <= 14) {
            return step;
        }
    }
    return 3600 * std::ceil(seconds / 14 / 3600);
}

// A moment with a label.
struct Moment {
    double x;
    std::string words;
    std::string hint;
};

// Moments whose labels have their places in rows.
struct PlacedLabels {
    struct Label {
        double x;
        std::size_t row;
        std::string words;
        std::string hint;
        bool leftwards;  // The label is to the left of the moment.
    };
    std::vector<Label> labels;
    // All moments. Those without a label of their own have the last row.
    struct Place {
        double x;
        std::size_t row;
    };
    std::vector<Place> moments;
    std::size_t rows = 0;
};

constexpr double MARK_ROOM = 6;  // Width of the mark before a label and of the space after it.

// The last row shows the number of labels that did not fit, as "+3". Its title lists the first of
// them.
void add_hidden(PlacedLabels& placed, const std::vector<Moment>& hidden, double font_size) {
    const double room = 2 * MARK_ROOM + text_width("+9,999", font_size);
    const std::size_t row = placed.rows;
    std::size_t first = placed.labels.size();
    std::size_t count = 0;
    for (const Moment& moment : hidden) {
        const double x = std::min(moment.x, WIDTH - room);
        if (first == placed.labels.size() || x >= placed.labels.back().x + room) {
            placed.labels.push_back({x, row, {}, {}, false});
            first = std::min(first, placed.labels.size() - 1);
            count = 0;
        }
        ++count;
        PlacedLabels::Label& label = placed.labels.back();
        label.words = "+" + grouped(count);
        if (count <= MOST_HINTS) {
            label.hint += (count > 1 ? "; " : "") + moment.hint;
        } else if (count == MOST_HINTS + 1) {
            label.hint += "; ...";
        }
    }
    placed.rows += hidden.empty() ? 0 : 1;
}

// Each label follows its moment, or precedes it near the right edge, in the first row with enough
// space. A label that is too long for every row is cut.
PlacedLabels place_labels(const std::vector<Moment>& moments, std::size_t most_rows,
                          double font_size) {
    LabelRows rows(most_rows);
    PlacedLabels placed;
    std::vector<Moment> hidden;
    for (const Moment& moment : moments) {
        const double behind = WIDTH - 4 - moment.x - MARK_ROOM;
        const double before = moment.x - MARK_ROOM - 4;
        const std::string words = cut_to_width(moment.words, std::max(behind, before), font_size);
        const double width = text_width(words, font_size);
        const bool leftwards = width > behind;
        const double begin = leftwards ? moment.x - MARK_ROOM - width : moment.x - MARK_ROOM;
        const auto row = rows.place(begin, begin + width + 3 * MARK_ROOM);
        placed.moments.push_back({moment.x, row.value_or(most_rows)});
        if (row.has_value()) {
            placed.labels.push_back({moment.x, *row, words, moment.hint, leftwards});
        } else {
            hidden.push_back(moment);
        }
    }
    placed.rows = rows.rows();
    std::sort(hidden.begin(), hidden.end(),
              [](const Moment& one, const Moment& two) { return one.x < two.x; });
    add_hidden(placed, hidden, font_size);
    return placed;
}

class Picture {
  public:
    explicit Picture(const TimelineData& data) : data_(data), seconds_(length()) { lay_out(); }

    // The texts are placed first, because vertical lines leave them out.
    std::string draw() {
        draw_head();
        draw_labels(events_, LABELS_TOP, EVENT_STYLE);
        for (const Side side : BOTH_SIDES) {
            draw_lane_title(side);
            draw_labels(lane(side).samples, lane(side).labels, SAMPLE_STYLE);
        }
        draw_axis();
        const double end = draw_legend();
        draw_grid();
        for (const auto& [x, row] : events_.moments) {
            canvas_.upright(Layer::MARKS, x, base_of(row, LABELS_TOP), axis_, EVENT_STYLE.line);
        }
        for (const Side side : BOTH_SIDES) {
            draw_lane(side);
        }
        return canvas_.document(WIDTH, end + 14);
    }

  private:
    struct Column {
        int lowest = 0;
        int highest = 0;
        double mean = 0;  // Root mean square.
        bool present = false;
    };
    using Columns = std::vector<Column>;

    // Where a side is drawn: vertical positions in the picture.
    struct Lane {
        double title = 0;
        double top = 0;
        double band = 0;    // Top of the band of audio activity.
        double labels = 0;  // Baseline of the first row.
        double bottom = 0;
        bool has_band = false;
        PlacedLabels samples;
    };

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

    // Returns the place of a sample on the axis.
    double at(const TimelineData::SideTrace& side, std::uint64_t sample) const {
        return data_.audio_begin + side.seconds_at(sample);
    }

    double x(double seconds) const { return LEFT + PLOT * seconds / seconds_; }

    const TimelineData::SideTrace& trace(Side which) const { return data_.sides[index_of(which)]; }
    const Lane& lane(Side which) const { return lanes_[index_of(which)]; }

    void lay_out() {
        std::vector<Moment> moments;
        for (const TimelineData::Event& event : data_.events) {
            moments.push_back({x(event.seconds), event.label,
                               event.label + " at " + clock_text(event.seconds, 0)});
        }
        events_ = place_labels(moments, MOST_EVENT_ROWS, EVENT_STYLE.font.size);
        double top =
            LABELS_TOP + LABEL_ROW * static_cast<double>(std::max<std::size_t>(events_.rows, 1));
        for (const Side side : BOTH_SIDES) {
            top = lay_out_lane(side, top);
        }
        axis_ = top;
    }

    // Returns the vertical position of its end.
    double lay_out_lane(Side which, double top) {
        const TimelineData::SideTrace& side = trace(which);
        std::vector<Moment> moments;
        for (const TimelineData::Sample& sample : side.samples) {
            const double seconds = at(side, sample.place);
            moments.push_back({x(seconds), quoted_text(sample.name, 60),
                               "sample " + quoted_text(sample.name) + " at " +
                                   clock_text(seconds, 0) +
                                   tools::format(", score %.2f", sample.score)});
        }
        Lane& lane = lanes_[index_of(which)];
        lane.samples = place_labels(moments, MOST_SAMPLE_ROWS, SAMPLE_STYLE.font.size);
        lane.title = top + 18;
        lane.top = top + LANE_TITLE;
        lane.band = lane.top + LANE + 3;
        lane.has_band = !side.heard.empty() || !side.active.empty();
        lane.bottom = lane.top + LANE + (lane.has_band ? BAND + 3 : 0);
        lane.labels = lane.bottom + 16;
        return lane.bottom + 6 +
               (lane.samples.rows == 0 ? 0
                                       : LABEL_ROW * static_cast<double>(lane.samples.rows) + 4);
    }

    void draw_head() {
        const std::string length = duration_text(seconds_);
        canvas_.text(LEFT, 30, "Call " + data_.title, TITLE_FONT);
        canvas_.text(WIDTH - LEFT, 30, length, TITLE_FONT, Anchor::END);
        canvas_.text(LEFT, 50, cut_to_width(data_.subtitle, PLOT, TEXT_FONT.size), TEXT_FONT);
        canvas_.text(LEFT, 68, cut_to_width(when_and_where(), PLOT, TEXT_FONT.size), TEXT_FONT);
    }

    bool has_clock() const {
        return data_.wall_begin.has_value() && seconds_ < CallClock::LONGEST_S;
    }

    Micros wall_time_at(double seconds) const {
        return *data_.wall_begin + Micros(static_cast<std::int64_t>(seconds * 1e6));
    }

    std::string when_and_where() const {
        std::string text;
        if (has_clock()) {
            const Micros begin = *data_.wall_begin;
            const Micros end = wall_time_at(seconds_);
            const std::string last_day = local_date(end);
            text = local_date(begin) + ' ' + local_time(begin) + " to " +
                   (last_day == local_date(begin) ? "" : last_day + ' ') + local_time(end) + " (" +
                   zone_text(begin) + ")";
        }
        for (const std::string& place : data_.places) {
            text += (text.empty() ? "" : ", ") + place;
        }
        return text;
    }

    static double base_of(std::size_t row, double first_base) {
        return first_base + LABEL_ROW * static_cast<double>(row);
    }

    void draw_labels(const PlacedLabels& placed, double first_base, const LabelStyle& style) {
        for (const PlacedLabels::Label& label : placed.labels) {
            const double base = base_of(label.row, first_base);
            canvas_.path(Layer::TEXT,
                         "M" + svg_number(label.x - 3) + ' ' + svg_number(base - 4) +
                             "a3 3 0 1 0 6 0a3 3 0 1 0 -6 0z",
                         style.mark, label.hint);
            canvas_.text(label.leftwards ? label.x - MARK_ROOM : label.x + MARK_ROOM, base,
                         label.words, style.font, label.leftwards ? Anchor::END : Anchor::START);
        }
    }

    void draw_lane_title(Side which) {
        const double base = lane(which).title;
        canvas_.text(LEFT, base, name_of(which), {13, LANE_COLOUR[index_of(which)], true});
        canvas_.text(LEFT + 92, base, trace(which).summary, SMALL_FONT);
    }

    // Calls `visit` with each place of the axis that gets a number, in seconds, and the distance of
    // these places.
    template <typename Visit>
    void for_each_tick(Visit visit) const {
        const double step = tick_step(seconds_);
        const auto ticks = static_cast<int>(seconds_ * 1.0001 / step);
        for (int i = 0; i <= ticks; ++i) {
            visit(i * step, step);
        }
    }

    void draw_axis() {
        LabelRows elapsed(1);
        LabelRows clock(1);
        for_each_tick([&](double tick, double step) {
            draw_figure(tick, axis_ + 16, clock_text(tick, step), SMALL_FONT, elapsed);
            if (has_clock()) {
                const Micros time = wall_time_at(tick);
                draw_figure(tick, axis_ + 31, step < 1 ? local_time_tenths(time) : local_time(time),
                            {11, "#64748b", false}, clock);
            }
        });
        canvas_.line(Layer::GRID, LEFT, axis_, WIDTH - LEFT, axis_, "stroke=\"#64748b\"");
    }

    // Numbers that do not fit are left out.
    void draw_figure(double tick, double base, const std::string& words, const Font& font,
                     LabelRows& row) {
        const double width = text_width(words, font.size);
        const double left =
            std::clamp(x(tick) - width / 2, LEFT, std::max(LEFT, WIDTH - LEFT - width));
        if (row.place(left, left + width + 8).has_value()) {
            canvas_.text(left, base, words, font);
        }
    }

    void draw_grid() {
        for_each_tick([&](double tick, double /*step*/) {
            canvas_.upright(Layer::GRID, x(tick), lanes_[0].title - 14, axis_,
                            "stroke=\"#e2e8f0\"");
        });
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

    // The peak of both sides together, so that their heights can be compared.
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

    void draw_lane(Side which) {
        const TimelineData::SideTrace& side = trace(which);
        const double top = lane(which).top;
        const Columns columns = columns_of(side);
        canvas_.box(Layer::GROUND, LEFT, top, PLOT, LANE, "fill=\"none\" stroke=\"#cbd5e1\"");
        draw_silence(columns, top);
        draw_stretches(Layer::GROUND, side, side.pauses, top, LANE, "fill=\"url(#pause)\"",
                       "pause of the sender: ");
        draw_stretches(Layer::GROUND, side, side.gaps, top, LANE,
                       "fill=\"#dc2626\" fill-opacity=\"0.45\"", "gap: ");
        draw_outline(columns, top, LANE_COLOUR[index_of(which)]);
        draw_gap_flags(side, top);
        draw_late(side, top);
        draw_stretches(Layer::AUDIO, side, side.heard, lane(which).band, BAND, HEARD_STYLE,
                       "looked for audio activity: ");
        draw_stretches(Layer::AUDIO, side, side.active, lane(which).band, BAND, ACTIVE_STYLE,
                       "audio activity: ");
        for (const auto& [x, row] : lane(which).samples.moments) {
            canvas_.upright(Layer::MARKS, x, top, base_of(row, lane(which).labels) - 4,
                            SAMPLE_STYLE.line);
        }
    }

    void draw_silence(const Columns& columns, double top) {
        for (std::size_t begin = 0; begin < columns.size();) {
            std::size_t end = begin;
            while (end < columns.size() && columns[end].present &&
                   columns[end].highest < SILENCE_PEAK && columns[end].lowest > -SILENCE_PEAK) {
                ++end;
            }
            if (end - begin >= SILENCE_COLUMNS) {
                canvas_.box(Layer::GROUND, column_x(begin), top, column_x(end) - column_x(begin),
                            LANE, "fill=\"#f1f5f9\"", "silence");
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
            // At least a hairline, so that silence differs from missing audio.
            const double high = std::min(middle - 0.4, middle - columns[c].highest * factor);
            const double low = std::max(middle + 0.4, middle - columns[c].lowest * factor);
            path += "M" + svg_number(left) + ' ' + svg_number(high) + 'V' + svg_number(low);
            const double mean = columns[c].mean * factor;
            core += mean < 1 ? std::string()
                             : "M" + svg_number(left) + ' ' + svg_number(middle - mean) + 'V' +
                                   svg_number(middle + mean);
        }
        canvas_.path(Layer::AUDIO, path, "stroke=\"" + colour + "\" stroke-opacity=\"0.5\"");
        canvas_.path(Layer::AUDIO, core, "stroke=\"" + colour + "\"");
    }

    // Marks at the same place are drawn once.
    void draw_stretches(Layer layer, const TimelineData::SideTrace& side,
                        const std::vector<TimelineData::Stretch>& stretches, double top,
                        double height, const std::string& style, const std::string& what) {
        double drawn_to = -1;
        for (const TimelineData::Stretch& stretch : stretches) {
            const double left = x(at(side, stretch.begin));
            const double right = std::max(left + 1.5, x(at(side, stretch.begin + stretch.length)));
            if (right <= drawn_to + 1) {
                continue;
            }
            drawn_to = right;
            std::string hint = what +
                               duration_text(side.seconds_at(stretch.begin + stretch.length) -
                                             side.seconds_at(stretch.begin)) +
                               " at " + clock_text(at(side, stretch.begin), 0);
            hint += stretch.packets != 0 ? ", " + counted(stretch.packets, "packet") : "";
            canvas_.box(layer, left, top, right - left, height, style, hint);
        }
    }

    // A small triangle above each gap, because a narrow band would be overlooked.
    void draw_gap_flags(const TimelineData::SideTrace& side, double top) {
        double last = -100;
        for (const TimelineData::Stretch& gap : side.gaps) {
            const double middle = x(at(side, gap.begin + gap.length / 2));
            if (middle - last < 5) {
                continue;
            }
            last = middle;
            canvas_.path(Layer::MARKS,
                         "M" + svg_number(middle - 3.5) + ' ' + svg_number(top - 5) + "h7l-3.5 6z",
                         "fill=\"#dc2626\"");
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
            canvas_.box(Layer::MARKS, place - 1, top + LANE - 16, 3, 16, "fill=\"#f59e0b\"",
                        "came too late, at " + clock_text(at(side, late), 0));
        }
    }

    // Draws the legend, only of marks that may occur. Returns the vertical position of its end.
    double draw_legend() {
        struct Entry {
            const char* style;
            const char* words;
        };
        std::vector<Entry> entries = {
            {"fill=\"#f1f5f9\" stroke=\"#cbd5e1\"", "silence"},
            {"fill=\"#dc2626\" fill-opacity=\"0.45\"", "gap: lost audio, filled with silence"},
            {"fill=\"#f59e0b\"", "packet came too late"},
            {"fill=\"url(#pause)\"", "pause of the sender"},
            {EVENT_STYLE.mark, "start, feature change, terminate"},
        };
        if (lanes_[0].has_band || lanes_[1].has_band) {
            entries.push_back({ACTIVE_STYLE, "audio activity"});
            entries.push_back({HEARD_STYLE, "none, where it was looked for"});
        }
        if (lanes_[0].samples.rows + lanes_[1].samples.rows != 0) {
            entries.push_back({SAMPLE_STYLE.mark, "recognised sample"});
        }
        double left = LEFT;
        double base = axis_ + 58;
        const auto make_room = [&](double width) {
            if (left > LEFT && left + width > WIDTH - LEFT) {
                left = LEFT;
                base += 20;
            }
        };
        for (const Entry& entry : entries) {
            const double width = 20 + text_width(entry.words, SMALL_FONT.size);
            make_room(width);
            canvas_.box(Layer::TEXT, left, base - 10, 14, 12, entry.style);
            canvas_.text(left + 20, base, entry.words, SMALL_FONT);
            left += width + 24;
        }
        const std::string height = "height: " + decibel_text(decibels(scale())) +
                                   " of full scale; light: peak, dark: power";
        make_room(text_width(height, SMALL_FONT.size));
        canvas_.text(left, base, height, SMALL_FONT);
        return base;
    }

    const TimelineData& data_;
    double seconds_;
    SvgCanvas canvas_;
    PlacedLabels events_;
    std::array<Lane, SIDE_COUNT> lanes_;
    double axis_ = 0;
};

}  // namespace

std::string render_timeline(const TimelineData& data) {
    return Picture(data).draw();
}

}  // namespace qv::node
