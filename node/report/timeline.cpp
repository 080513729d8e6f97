#include "node/report/timeline.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "node/audio/file_names.h"
#include "node/calls/call.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

// As floating point: the difference of forged send times could overflow.
double seconds_between(std::int64_t begin, std::int64_t end) {
    return (static_cast<double>(end) - static_cast<double>(begin)) / 1e6;
}

template <typename Marks, typename Mark>
void add_mark(Marks& marks, Mark mark) {
    if (marks.size() < TimelineData::MAX_MARKS) {
        marks.push_back(std::move(mark));
    }
}

// If the line is too long, the reference is cut, not what follows it.
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

std::string summary_of(const CallSide& side) {
    const ReorderBuffer::Stats& stats = side.stats();
    if (!side.begun()) {
        return "no audio";
    }
    std::string text = duration_text(seconds_of(side.position_with_pauses(), side.sample_rate())) +
                       ", " + std::to_string(side.sample_rate()) + " Hz, " +
                       level_text(side.level().level_db());
    text += stats.gaps == 0 ? ", no gap" : ", " + counted(stats.gaps, "gap");
    text += stats.lost() != 0 ? ", " + counted(stats.lost(), "packet") + " lost" : "";
    text += stats.late != 0 ? ", " + grouped(stats.late) + " late" : "";
    return text;
}

// Gathers what the picture of one call is drawn from.
class TimelineOfCall : public CallListener {
  public:
    TimelineOfCall(Call& call, const Timeline::Save& save) : call_(call), save_(save) {}

    void started(const Call& /*call*/, const media::Packet& packet) override {
        note(packet.send_time, "start: " + features_text(packet.features));
    }

    void features_changed(const Call& /*call*/, const media::Packet& packet) override {
        note(packet.send_time, features_text(packet.features));
    }

    void terminated(const Call& /*call*/, const media::Packet& packet) override {
        note(packet.send_time, "terminate");
        data_.terminated = true;
    }

    void audio(const Call& /*call*/, Side side, const Audio& audio) override {
        trace(side).outline.add(audio.samples, audio.count);
    }

    void pause(const Call& /*call*/, Side side, const Pause& pause) override {
        TimelineData::SideTrace& into = trace(side);
        add_mark(into.pauses, TimelineData::Stretch{into.outline.samples(), pause.samples, 0});
        into.outline.add_silence(pause.samples);
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

    void ended(const Call& call, EndReason reason) override {
        data_.title = uuid_text(call.uuid());
        data_.subtitle = subtitle_of(call, reason);
        for (const Side side : BOTH_SIDES) {
            trace(side).sample_rate = call.side(side).sample_rate();
            trace(side).summary = summary_of(call.side(side));
        }
        const std::int64_t begin = axis_begin();
        data_.audio_begin = seconds_between(begin, call.first_audio_time().value_or(begin));
        place_events(begin);
        const FileReport file = save_(timeline_file_name(call.file_stem()), render_timeline(data_));
        if (!file.error.empty()) {
            call_.report_failed_file(file);
        }
    }

  private:
    // An event that is placed on the axis at the end, when the rates are known.
    struct RawEvent {
        std::int64_t send_time;
        std::array<std::uint64_t, SIDE_COUNT> heads;  // How far the sides were, in samples.
        std::string label;
    };

    TimelineData::SideTrace& trace(Side side) { return data_.sides[index_of(side)]; }

    void note(std::int64_t send_time, std::string label) {
        add_mark(events_, RawEvent{send_time,
                                   {trace(Side::ORIGINATOR).outline.samples(),
                                    trace(Side::TERMINATOR).outline.samples()},
                                   std::move(label)});
    }

    // The send time of the first packet, usually the start packet.
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
                // When the sender is faster than real time, its audio shows the time.
                const double head =
                    data_.audio_begin + seconds_of(event.heads[i], data_.sides[i].sample_rate);
                at = event.heads[i] != 0 && head > at + 1 ? head : at;
            }
            data_.events.push_back({at, std::move(event.label)});
        }
    }

    Call& call_;
    const Timeline::Save& save_;
    TimelineData data_;
    std::vector<RawEvent> events_;
};

}  // namespace

std::unique_ptr<CallListener> Timeline::begin_call(Call& call) {
    return call.file_stem().empty() ? nullptr : std::make_unique<TimelineOfCall>(call, save_);
}

}  // namespace qv::node
