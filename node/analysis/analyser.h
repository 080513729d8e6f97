// Does for each side what its call asks for: looks for audio activity and for samples, from the
// sample at which a feature is switched on to the one at which it is switched off. What is
// noticed is reported to the call, so that all outputs get it.
//
// An output. The detectors run on the thread of a Worker; this object only copies audio into its
// queue and belongs to the thread of the calls. What the worker cannot keep up with is left out,
// reported and counted. Comes before the outputs that are to report what was noticed at the end
// of a call before they report the end.
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
    // Further names of samples are counted together, under OTHER_SAMPLES.
    static constexpr std::size_t MOST_COUNTED_NAMES = 1000;
    static constexpr const char* OTHER_SAMPLES = "(others)";

    struct Figures {
        std::size_t activity_sides = 0;   // On which activity runs now.
        std::size_t detection_sides = 0;  // That are searched for samples now.
        std::size_t recorded_sides = 0;
        std::size_t samples = 0;                     // References that are looked for.
        std::uint64_t onsets = 0;                    // Of activity.
        std::uint64_t skipped = 0;                   // Samples of audio that were left out.
        std::map<std::string, std::uint64_t> found;  // Occurrences by the sample's name.
    };

    explicit Analyser(const analysis::Worker::Settings& settings);
    ~Analyser() override;

    std::unique_ptr<CallListener> begin_call(Call& call) override;

    // To be called some times a second: hands audio to the worker and reports what it noticed.
    void update();

    // From now on these samples are looked for. A sample that is being heard is looked for anew.
    void set_samples(std::shared_ptr<const analysis::SampleIndex> samples);

    const Figures& figures() const { return figures_; }

  private:
    class AnalysedSide;
    class AnalysedCall;

    void report_noticed();
    void count_found(const std::string& name);

    Figures figures_;
    std::uint64_t next_side_ = 1;
    std::size_t held_ = 0;  // Samples of sides whose rate is not known.
    std::unordered_map<std::uint64_t, AnalysedSide*> sides_;
    analysis::Worker worker_;
};

}  // namespace qv::node
