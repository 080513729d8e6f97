// A picture of one call: the outlines of both sides over one time axis, with silence,
// gaps, late parts, pauses, audio activity, recognised samples, and what happened when. Written as
// one SVG file per call when the call has ended. Belongs to one thread.
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

// What a picture is drawn from. Places are in samples of their side, as the outline
// counts them: audio, filled silence and pauses.
struct TimelineData {
    static constexpr std::size_t MAX_SPANS = 2048;
    static constexpr std::size_t SUBTITLE_COLUMNS = 150;  // What fits, about.
    static constexpr std::size_t MAX_MARKS = 2000;        // Of each kind; more are not drawn.
    static constexpr std::size_t MAX_SAMPLES = 500;       // Recognised, of a side.

    struct Stretch {
        std::uint64_t begin;
        std::uint64_t length;
        std::uint64_t packets;  // Lost ones, of a gap.
    };
    // A sample that was recognised.
    struct Sample {
        std::uint64_t place;
        std::string name;
        double score;
    };
    struct SideTrace {
        // The time of a sample of the outline.
        double seconds_at(std::uint64_t sample) const {
            return node::seconds_at(sample, rate_changes, sample_rate);
        }

        Envelope outline{MAX_SPANS};
        int sample_rate = 0;
        std::vector<RateChange> rate_changes;  // Before; placed as the outline counts.
        std::vector<Stretch> gaps;
        std::vector<Stretch> pauses;
        std::vector<std::uint64_t> late;
        std::vector<Stretch> heard;   // Where audio activity was looked for,
        std::vector<Stretch> active;  // and where there was some.
        std::vector<Sample> samples;
        std::string summary;
    };
    struct Event {
        double seconds;  // From the beginning of the axis, as all times here.
        std::string label;
    };

    std::string title;
    std::string subtitle;
    std::vector<std::string> places;   // Addresses of the call, in words.
    std::optional<Micros> wall_begin;  // Since 1970, when the axis begins.
    double audio_begin = 0;  // Where both sides begin: a call rings before it is answered.
    std::array<SideTrace, SIDE_COUNT> sides;
    std::vector<Event> events;  // In order.
    bool terminated = false;
};

std::string render_timeline(const TimelineData& data);

// Draws each call that has a file stem, when it has ended. An output.
class Timeline : public CallListener {
  public:
    // Writes a picture under that name, without folder, and says what became of the file.
    using Save = std::function<FileReport(const std::string& name, const std::string& svg)>;

    explicit Timeline(Save save) : save_(std::move(save)) {}

    std::unique_ptr<CallListener> begin_call(Call& call) override;

  private:
    Save save_;
};

}  // namespace qv::node
