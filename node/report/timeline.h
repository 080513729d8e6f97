// A picture of one call: the outlines of both sides on one time axis, with silence, gaps, late
// parts, pauses, audio activity, recognised samples and events. Written as one SVG file per call
// after the call has ended. Belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/report/envelope.h"

namespace qv::node {

// The data of a picture. Positions are in samples of their side, including filled silence and
// pauses.
struct TimelineData {
    static constexpr std::size_t MAX_SPANS = 2048;
    static constexpr std::size_t SUBTITLE_COLUMNS = 150;  // Columns that fit, approximately.
    static constexpr std::size_t MAX_MARKS = 2000;   // Of each kind. Further marks are not drawn.
    static constexpr std::size_t MAX_SAMPLES = 500;  // Recognised samples per side.

    struct Stretch {
        std::uint64_t begin;
        std::uint64_t length;
        std::uint64_t packets;  // Lost packets, if it is a gap.
    };
    // A sample that was recognised.
    struct Sample {
        std::uint64_t place;
        std::string name;
        double score;
    };
    struct SideTrace {
        // Returns the time of a sample of the outline.
        double seconds_at(std::uint64_t sample) const {
            return node::seconds_at(sample, rate_changes, sample_rate);
        }

        Envelope outline{MAX_SPANS};
        int sample_rate = 0;
        std::vector<RateChange> rate_changes;  // At positions of the outline.
        std::vector<Stretch> gaps;
        std::vector<Stretch> pauses;
        std::vector<std::uint64_t> late;
        std::vector<Stretch> heard;   // Where activity detection ran,
        std::vector<Stretch> active;  // and where there was activity.
        std::vector<Sample> samples;
        std::string summary;
    };
    struct Event {
        double seconds;  // From the beginning of the axis, like all times here.
        std::string label;
    };

    std::string title;
    std::string subtitle;
    std::vector<std::string> places;   // Addresses of the call, as text.
    std::optional<Micros> wall_begin;  // Since 1970, at the beginning of the axis.
    double audio_begin = 0;  // Where both sides begin: a call may ring before it is answered.
    std::array<SideTrace, SIDE_COUNT> sides;
    std::vector<Event> events;  // In the order of time.
    bool terminated = false;
};

std::string render_timeline(const TimelineData& data);

// Draws each call that has a file stem after the call is over. An output.
class Timeline : public CallListener {
  public:
    // Begins to write a picture under that name (without folder). Does not wait for the disk and
    // does not return null.
    using Save =
        std::function<std::shared_ptr<const PendingFile>(const std::string& name, std::string svg)>;

    explicit Timeline(Save save) : save_(std::move(save)) {}

    std::unique_ptr<CallListener> begin_call(Call& call) override;

  private:
    Save save_;
};

}  // namespace qv::node
