#include "node/report/timeline.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "node/report/text.h"

namespace qv::node {

namespace {

double seconds_of(std::uint64_t samples, int rate) {
    return static_cast<double>(samples) / (rate != 0 ? rate : DEFAULT_SAMPLE_RATE);
}

// Any send times may come; as whole numbers their difference could overflow.
double seconds_between(std::int64_t begin, std::int64_t end) {
    return (static_cast<double>(end) - static_cast<double>(begin)) / 1e6;
}

template <typename Marks, typename Mark>
void add_mark(Marks& marks, Mark mark) {
    if (marks.size() < TimelineData::MAX_MARKS) {
        marks.push_back(std::move(mark));
    }
}

std::string level_text(double level) {
    return level <= SILENCE_DB ? "silent" : std::to_string(std::lround(level)) + " dB";
}

// Of a long line the reference is cut, not what follows it.
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
    return call.start.has_value() ? start_text(*call.start, end)
                                  : "the start packet never came" + end;
}

std::string summary_of(const CallSide& side) {
    const ReorderBuffer::Stats& stats = side.tracker.stats();
    if (!side.leg.has_value()) {
        return "no audio";
    }
    std::string text = duration_text(seconds_of(side.pauses.position(), side.sample_rate)) + ", " +
                       std::to_string(side.sample_rate) + " Hz, " +
                       level_text(side.level.level_db());
    text += stats.gaps == 0 ? ", no gap" : ", " + counted(stats.gaps, "gap");
    text += stats.lost() != 0 ? ", " + counted(stats.lost(), "packet") + " lost" : "";
    text += stats.late != 0 ? ", " + grouped(stats.late) + " late" : "";
    return text;
}

}  // namespace

Timeline::Trace& Timeline::trace(const Call& call) {
    std::unique_ptr<Trace>& found = traces_[&call];
    if (found == nullptr) {
        found = std::make_unique<Trace>();
    }
    return *found;
}

void Timeline::note(const Call& call, std::int64_t send_time, std::string label) {
    Trace& into = trace(call);
    add_mark(into.events,
             RawEvent{send_time,
                      {into.data.sides[0].outline.samples(), into.data.sides[1].outline.samples()},
                      std::move(label)});
}

void Timeline::started(const Call& call, const media::Packet& packet) {
    note(call, packet.send_time, "start: " + features_text(packet.features));
}

void Timeline::features_changed(const Call& call, const media::Packet& packet) {
    note(call, packet.send_time, features_text(packet.features));
}

void Timeline::terminated(const Call& call, const media::Packet& packet) {
    note(call, packet.send_time, "terminate");
    trace(call).data.terminated = true;
}

void Timeline::audio(const Call& call, Side side, const std::int16_t* samples, std::size_t count) {
    trace(call, side).outline.add(samples, count);
}

void Timeline::pause(const Call& call, Side side, const Pause& pause) {
    TimelineData::SideTrace& into = trace(call, side);
    add_mark(into.pauses, TimelineData::Stretch{into.outline.samples(), pause.samples, 0});
    into.outline.add_silence(pause.samples);
}

void Timeline::gap(const Call& call, Side side, const Gap& gap) {
    TimelineData::SideTrace& into = trace(call, side);
    add_mark(into.gaps,
             TimelineData::Stretch{into.outline.samples(), gap.filled_samples, gap.lost_packets});
    into.outline.add_silence(gap.filled_samples);
}

void Timeline::late(const Call& call, Side side, const media::Packet& packet) {
    TimelineData::SideTrace& into = trace(call, side);
    const std::uint32_t back = call.side(side).tracker.expected_offset() - packet.sample_offset;
    const std::uint64_t head = into.outline.samples();
    add_mark(into.late, back <= head ? head - back : 0);
}

// The send time of the first packet, usually the start packet.
std::int64_t Timeline::axis_begin(const Call& call, const std::vector<RawEvent>& events) {
    std::int64_t begin = call.first_audio_time.value_or(std::numeric_limits<std::int64_t>::max());
    for (const RawEvent& event : events) {
        begin = std::min(begin, event.send_time);
    }
    return begin;
}

void Timeline::place_events(Trace& trace, std::int64_t axis_begin) {
    TimelineData& data = trace.data;
    for (RawEvent& event : trace.events) {
        double at = seconds_between(axis_begin, event.send_time);
        for (std::size_t i = 0; i < SIDE_COUNT; ++i) {
            // A sender faster than real time: its audio tells the time.
            const double head =
                data.audio_begin + seconds_of(event.heads[i], data.sides[i].sample_rate);
            at = event.heads[i] != 0 && head > at + 1 ? head : at;
        }
        data.events.push_back({at, std::move(event.label)});
    }
}

void Timeline::ended(const Call& call, EndReason reason) {
    Trace& ending = trace(call);
    TimelineData& data = ending.data;
    data.title = uuid_text(call.uuid);
    data.subtitle = subtitle_of(call, reason);
    for (const Side side : BOTH_SIDES) {
        data.sides[index_of(side)].sample_rate = call.side(side).sample_rate;
        data.sides[index_of(side)].summary = summary_of(call.side(side));
    }
    const std::int64_t begin = axis_begin(call, ending.events);
    data.audio_begin = seconds_between(begin, call.first_audio_time.value_or(begin));
    place_events(ending, begin);
    save_(call, call.recording->stem() + ".svg", render_timeline(data));
    traces_.erase(&call);
}

}  // namespace qv::node
