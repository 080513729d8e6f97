#include "node/report/timeline.h"

#include <algorithm>
#include <limits>

#include "node/audio/file_names.h"
#include "node/calls/call.h"
#include "node/calls/pause_map.h"
#include "node/report/bounded_list.h"
#include "node/report/call_clock.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

template <typename Mark>
void add_mark(std::vector<Mark>& marks, Mark mark) {
    add_within(TimelineData::MAX_MARKS, marks, std::move(mark));
}

// If the line is too long, the reference is cut, but not the text behind it.
std::string start_text(const StartFields& start, const std::string& end) {
    const std::string direction = start.outbound() ? "outbound, reference " : "inbound, reference ";
    const std::string rule =
        start.rule_id_given() ? ", rule " + std::to_string(start.rule_id) : std::string();
    const std::size_t others =
        direction.size() + rule.size() + end.size() + std::string("\"...\"").size();
    const std::size_t room = TimelineData::SUBTITLE_COLUMNS - others;
    return direction + quoted_text(start.call_reference, room) + rule + end;
}

std::string subtitle_of(const Call& call, EndReason reason) {
    const std::string end = reason == EndReason::TERMINATED
                                ? std::string()
                                : std::string(", not terminated (") + name_of(reason) + ")";
    return call.start().has_value() ? start_text(*call.start(), end)
                                    : "the start packet never came" + end;
}

std::vector<std::string> places_of(const Call& call) {
    std::vector<std::string> places = {"from " + address_text(call.source())};
    if (call.start().has_value() && !call.start()->report_node.empty()) {
        places.push_back("report node " + call.start()->report_node);
    }
    return places;
}

std::string summary_of(const CallSide& side) {
    const ReorderBuffer::Stats& stats = side.stats();
    if (!side.begun()) {
        return "no audio";
    }
    std::string text = duration_text(side.seconds_with_pauses()) + ", " +
                       std::to_string(side.sample_rate()) + " Hz, " +
                       level_text(side.level().level_db());
    text += stats.gaps == 0 ? ", no gap" : ", " + counted(stats.gaps, "gap");
    text += stats.lost() != 0 ? ", " + counted(stats.lost(), "packet") + " lost" : "";
    text += stats.late != 0 ? ", " + grouped(stats.late) + " late" : "";
    return text;
}

// Collects the data for the picture of one call.
class TimelineOfCall : public CallListener {
  public:
    TimelineOfCall(Call& call, const Timeline::Save& save) : call_(call), save_(save) {}

    void started(const Call& /*call*/, const media::Packet& packet) override {
        clock_.note(packet.send_time);
        note(packet.send_time, "start: " + features_text(packet.features));
    }

    void data(const Call& /*call*/, const media::Packet& packet) override {
        clock_.note(packet.send_time);
    }

    void features_changed(const Call& /*call*/, const media::Packet& packet) override {
        clock_.note(packet.send_time);
        note(packet.send_time, features_text(packet.features));
    }

    void terminated(const Call& /*call*/, const media::Packet& packet) override {
        clock_.note(packet.send_time);
        note(packet.send_time, "terminate");
        data_.terminated = true;
    }

    void audio(const Call& /*call*/, Side side, const Audio& audio) override {
        trace(side).outline.add(audio.samples, audio.count);
    }

    void pause(const Call& /*call*/, Side side, const Pause& pause) override {
        TimelineData::SideTrace& into = trace(side);
        pauses_[index_of(side)].add(pause);
        add_mark(into.pauses, TimelineData::Stretch{into.outline.samples(), pause.samples, 0});
        into.outline.add_silence(pause.samples);
    }

    void rate_changed(const Call& /*call*/, Side side, const RateChange& change) override {
        TimelineData::SideTrace& into = trace(side);
        into.rate_changes.push_back({into.outline.samples(), change.old_rate, change.new_rate});
    }

    void gap(const Call& /*call*/, Side side, const Gap& gap) override {
        TimelineData::SideTrace& into = trace(side);
        add_mark(into.gaps, TimelineData::Stretch{into.outline.samples(), gap.filled_samples,
                                                  gap.lost_packets});
        into.outline.add_silence(gap.filled_samples);
    }

    void late(const Call& call, Side side, const media::Packet& packet) override {
        TimelineData::SideTrace& into = trace(side);
        const std::uint32_t back = call.side(side).expected_offset() - packet.sample_offset;
        const std::uint64_t head = into.outline.samples();
        add_mark(into.late, back <= head ? head - back : 0);
    }

    void running_changed(const Call& call, Side side, std::uint64_t position) override {
        switch_stretch(side, trace(side).heard, heard_since_[index_of(side)],
                       call.side(side).running().activity, position);
    }

    void activity(const Call& /*call*/, Side side, const Activity& activity) override {
        switch_stretch(side, trace(side).active, active_since_[index_of(side)], activity.active,
                       activity.position);
    }

    void sample_found(const Call& /*call*/, Side side, const FoundSample& sample) override {
        const std::uint64_t begin =
            sample.position < 0 ? 0 : static_cast<std::uint64_t>(sample.position);
        add_within(TimelineData::MAX_SAMPLES, trace(side).samples,
                   {place_of(side, begin), sample.name, sample.score});
    }

    void summing_up(const Call& call, EndReason reason) override {
        data_.title = uuid_text(call.uuid());
        data_.subtitle = subtitle_of(call, reason);
        for (const Side side : BOTH_SIDES) {
            trace(side).sample_rate = call.side(side).sample_rate();
            trace(side).summary = summary_of(call.side(side));
            end_stretches(side);
        }
        const std::int64_t begin = axis_begin();
        data_.audio_begin = seconds_between(begin, call.first_audio_time().value_or(begin));
        data_.places = places_of(call);
        data_.wall_begin = clock_.at(begin);
        place_events(begin);
        file_ = save_(timeline_file_name(call.file_stem()), render_timeline(data_));
    }

    bool completing(const Call& /*call*/) const override {
        return file_ != nullptr && !file_->complete;
    }

    void ended(const Call& /*call*/, EndReason /*reason*/) override {
        if (file_ != nullptr && !file_->report.error.empty()) {
            call_.report_failed_file(file_->report);
        }
    }

  private:
    // An event that is placed on the axis at the end of the call, when the rates are known.
    struct RawEvent {
        std::int64_t send_time;
        std::array<std::uint64_t, SIDE_COUNT> heads;  // Positions of the sides, in samples.
        std::string label;
    };

    TimelineData::SideTrace& trace(Side side) { return data_.sides[index_of(side)]; }

    void note(std::int64_t send_time, std::string label) {
        add_mark(events_, RawEvent{send_time,
                                   {trace(Side::ORIGINATOR).outline.samples(),
                                    trace(Side::TERMINATOR).outline.samples()},
                                   std::move(label)});
    }

    // Returns the place of a position in the outline, which includes the pauses. If a pause begins
    // at the position, the end of a stretch is placed before it, any other position after it.
    std::uint64_t place_of(Side side, std::uint64_t position, bool is_end = false) const {
        return pauses_[index_of(side)].place_of(position, is_end);
    }

    // Begins or ends a stretch.
    void switch_stretch(Side side, std::vector<TimelineData::Stretch>& stretches,
                        std::optional<std::uint64_t>& since, bool on, std::uint64_t position) {
        if (on && !since.has_value()) {
            since = place_of(side, position);
        } else if (!on && since.has_value()) {
            add_stretch(side, stretches, *since, place_of(side, position, true));
            since.reset();
        }
    }

    // Stretches that are too close to be distinguished are joined, so that a long call is drawn
    // completely.
    void add_stretch(Side side, std::vector<TimelineData::Stretch>& stretches, std::uint64_t begin,
                     std::uint64_t end) {
        if (stretches.size() == TimelineData::MAX_MARKS) {
            join_closer_than(trace(side).outline.samples() / NARROW, stretches);
        }
        add_mark(stretches, TimelineData::Stretch{begin, std::max(begin, end) - begin, 0});
    }

    static void join_closer_than(std::uint64_t distance,
                                 std::vector<TimelineData::Stretch>& stretches) {
        std::vector<TimelineData::Stretch> joined;
        for (const TimelineData::Stretch& next : stretches) {
            if (joined.empty() ||
                next.begin > joined.back().begin + joined.back().length + distance) {
                joined.push_back(next);
            } else {
                const std::uint64_t end =
                    std::max(joined.back().begin + joined.back().length, next.begin + next.length);
                joined.back().length = end - joined.back().begin;
            }
        }
        stretches = std::move(joined);
    }

    void end_stretches(Side side) {
        const std::uint64_t end = call_.side(side).position();
        switch_stretch(side, trace(side).heard, heard_since_[index_of(side)], false, end);
        switch_stretch(side, trace(side).active, active_since_[index_of(side)], false, end);
    }

    // Send time of the first packet, usually the start packet.
    std::int64_t axis_begin() const {
        std::int64_t begin =
            call_.first_audio_time().value_or(std::numeric_limits<std::int64_t>::max());
        for (const RawEvent& event : events_) {
            begin = std::min(begin, event.send_time);
        }
        return begin;
    }

    void place_events(std::int64_t axis_begin) {
        for (RawEvent& event : events_) {
            double at = seconds_between(axis_begin, event.send_time);
            for (std::size_t i = 0; i < SIDE_COUNT; ++i) {
                // If the sender is faster than real time, the audio is the only measure of time.
                const double head = data_.audio_begin + data_.sides[i].seconds_at(event.heads[i]);
                at = event.heads[i] != 0 && head > at + 1 ? head : at;
            }
            data_.events.push_back({at, std::move(event.label)});
        }
    }

    // Parts of the outline that can be distinguished.
    static constexpr std::uint64_t NARROW = 1000;

    Call& call_;
    const Timeline::Save& save_;
    TimelineData data_;
    CallClock clock_;
    std::array<PauseMap, SIDE_COUNT> pauses_;
    std::array<std::optional<std::uint64_t>, SIDE_COUNT> heard_since_;
    std::array<std::optional<std::uint64_t>, SIDE_COUNT> active_since_;
    std::vector<RawEvent> events_;
    std::shared_ptr<const PendingFile> file_;  // The picture; null before it is drawn.
};

}  // namespace

std::unique_ptr<CallListener> Timeline::begin_call(Call& call) {
    return call.file_stem().empty() ? nullptr : std::make_unique<TimelineOfCall>(call, save_);
}

}  // namespace qv::node
