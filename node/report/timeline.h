// A picture of one call: the outlines of both sides over one time axis, with silence,
// gaps, late parts, pauses, and what happened when. Written as one SVG file a call when
// the call has ended. Belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/report/envelope.h"

namespace qv::node {

// What a picture is drawn from. Places are in samples of their side, as the outline
// counts them: audio, filled silence and pauses.
struct TimelineData {
    static constexpr std::size_t MAX_SPANS = 2048;
    static constexpr std::size_t SUBTITLE_COLUMNS = 150;  // What fits.
    static constexpr std::size_t MAX_MARKS = 2000;        // Of each kind; more are not drawn.

    struct Stretch {
        std::uint64_t begin;
        std::uint64_t length;
        std::uint64_t packets;  // Lost ones, of a gap.
    };
    struct SideTrace {
        Envelope outline{MAX_SPANS};
        int sample_rate = 0;
        std::vector<Stretch> gaps;
        std::vector<Stretch> pauses;
        std::vector<std::uint64_t> late;
        std::string summary;
    };
    struct Event {
        double seconds;  // From the beginning of the axis, as all times here.
        std::string label;
    };

    std::string title;
    std::string subtitle;
    double audio_begin = 0;  // Where both sides begin: a call rings before it is answered.
    std::array<SideTrace, SIDE_COUNT> sides;
    std::vector<Event> events;  // In order.
    bool terminated = false;
};

std::string render_timeline(const TimelineData& data);

// Gathers the data of all calls and hands over each picture when its call has ended.
class Timeline : public CallListener {
  public:
    // `save` gets the file's name without folder, and the picture.
    using Save = std::function<void(const Call&, const std::string& name, const std::string& svg)>;

    explicit Timeline(Save save) : save_(std::move(save)) {}

    void started(const Call& call, const media::Packet& packet) override;
    void features_changed(const Call& call, const media::Packet& packet) override;
    void terminated(const Call& call, const media::Packet& packet) override;
    void audio(const Call& call, Side side, const std::int16_t* samples,
               std::size_t count) override;
    void pause(const Call& call, Side side, const Pause& pause) override;
    void gap(const Call& call, Side side, const Gap& gap) override;
    void late(const Call& call, Side side, const media::Packet& packet) override;
    void ended(const Call& call, EndReason reason) override;

  private:
    // An event whose place on the axis is found at the end, when the rates are known.
    struct RawEvent {
        std::int64_t send_time;
        std::array<std::uint64_t, SIDE_COUNT> heads;  // How far the sides were, in samples.
        std::string label;
    };
    struct Trace {
        TimelineData data;
        std::vector<RawEvent> events;
    };

    static std::int64_t axis_begin(const Call& call, const std::vector<RawEvent>& events);
    static void place_events(Trace& trace, std::int64_t axis_begin);

    Trace& trace(const Call& call);
    TimelineData::SideTrace& trace(const Call& call, Side side) {
        return trace(call).data.sides[index_of(side)];
    }
    void note(const Call& call, std::int64_t send_time, std::string label);

    Save save_;
    std::unordered_map<const Call*, std::unique_ptr<Trace>> traces_;
};

}  // namespace qv::node
