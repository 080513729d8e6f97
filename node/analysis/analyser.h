// Runs the analysis that each call asks for: detects audio activity and samples on a side, from the
// sample at which a feature is switched on to the sample at which it is switched off. Detections
// are reported to the call, so that all outputs receive them.
//
// An output. The detectors run on the thread of a Worker; this object only copies audio into its
// queue, and belongs to the thread of the calls. Audio that the worker cannot keep up with is left
// out, reported and counted. In the list of outputs, the analyser must come before those that still
// report detections when a call ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "node/analysis/worker.h"
#include "node/calls/call_listener.h"

namespace qv::node {

class Analyser : public CallListener {
  public:
    // The names of further samples are counted together, under OTHER_SAMPLES.
    static constexpr std::size_t MOST_COUNTED_NAMES = 1000;
    static constexpr const char* OTHER_SAMPLES = "(others)";

    struct Figures {
        std::size_t activity_sides = 0;   // Sides on which activity detection runs now.
        std::size_t detection_sides = 0;  // Sides on which sample detection runs now.
        std::size_t recorded_sides = 0;
        std::size_t samples = 0;                     // References that are searched for.
        std::uint64_t onsets = 0;                    // Onsets of activity.
        std::uint64_t skipped = 0;                   // Samples of audio that were left out.
        std::map<std::string, std::uint64_t> found;  // Occurrences by the sample's name.

        void count_found(const std::string& name, std::uint64_t occurrences);
        // Adds those of an analyser of other calls that searches for the same samples.
        void add(const Figures& others);
    };

    enum class Pace : unsigned char {
        LIVE,     // What the worker cannot keep up with is left out.
        PATIENT,  // The thread of the calls waits for the worker: a capture can be read slower.
    };

    // Audio of sides whose sample rate is unknown waits, at most this many samples in all.
    static constexpr std::size_t MOST_HELD = 32'000'000;

    explicit Analyser(const analysis::Worker::Settings& settings, Pace pace = Pace::LIVE,
                      std::size_t most_held = MOST_HELD);
    ~Analyser() override;

    std::unique_ptr<CallListener> begin_call(Call& call) override;

    // Call it several times a second. Passes audio to the worker and reports what the worker
    // detected.
    void update();

    // From now on these samples are searched for. The search for a sample that is playing now
    // starts again.
    void set_samples(std::shared_ptr<const analysis::SampleIndex> samples);

    const Figures& figures() const { return figures_; }

  private:
    class AnalysedSide;
    class AnalysedCall;

    void report_noticed();

    const Pace pace_;
    const std::size_t most_held_;
    Figures figures_;
    std::uint64_t next_side_ = 1;
    std::size_t held_ = 0;  // Samples held for sides whose rate is unknown.
    std::unordered_map<std::uint64_t, AnalysedSide*> sides_;
    analysis::Worker worker_;
};

}  // namespace qv::node
