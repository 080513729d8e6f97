// Feeds packets of any size and content, gaps and pauses to the detectors of a side. The bytes
// select an operation, a length and the kind of samples.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz/support/input.h"
#include "fuzz/support/require.h"
#include "node/analysis/activity_detector.h"
#include "node/analysis/sample_detector.h"

namespace {

using namespace qv::node::analysis;
using qv::fuzz::Input;

// Limits the samples of one input, so that it ends soon.
constexpr std::uint64_t LONGEST = 1u << 16;

float noise_at(std::uint32_t& state) {
    state = state * 1664525u + 1013904223u;
    return static_cast<float>(state >> 8) / 8388608.0F - 1;
}

std::shared_ptr<const SampleIndex> references() {
    SampleIndexBuilder builder;
    std::vector<float> sound(8000);
    std::uint32_t state = 1;
    for (float& each : sound) {
        each = 0.3F * noise_at(state);
    }
    builder.add("noise", sound.data(), sound.size(), 8000);
    for (std::size_t i = 0; i < sound.size(); ++i) {
        sound[i] = static_cast<float>(0.3 * std::sin(0.7 * static_cast<double>(i)));
    }
    builder.add("tone", sound.data(), sound.size(), 8000);
    return builder.build();
}

// Requires that every report makes sense, for any audio.
class Checks : public ActivityOutput, public SampleOutput {
  public:
    void activity(const ActivityChange& change) override {
        qv::fuzz::require(change.active != active_, "onsets and ends take turns");
        qv::fuzz::require(change.position >= last_, "activity goes forwards");
        qv::fuzz::require(change.position <= change.heard, "nothing is active before it is heard");
        active_ = change.active;
        last_ = change.position;
    }
    void sample(const SampleFound& found) override {
        qv::fuzz::require(found.score >= 0 && found.score <= 1, "scores are from 0 to 1");
        qv::fuzz::require(found.name == "noise" || found.name == "tone", "the name is one of ours");
        qv::fuzz::require(found.position <= static_cast<std::int64_t>(found.heard),
                          "nothing is found before it begins");
    }

  private:
    bool active_ = false;
    std::uint64_t last_ = 0;
};

std::vector<std::int16_t> samples(Input& in, std::size_t count) {
    const std::uint64_t kind = in.take(1);
    auto state = static_cast<std::uint32_t>(kind);
    std::vector<std::int16_t> list(count);
    for (std::size_t i = 0; i < count; ++i) {
        switch (kind % 6) {
            case 0:
                list[i] = 0;
                break;
            case 1:
                list[i] = 32767;
                break;
            case 2:
                list[i] = i % 2 == 0 ? 32767 : -32768;
                break;
            case 3:
                list[i] = static_cast<std::int16_t>(32767 * noise_at(state));
                break;
            case 4:
                list[i] = static_cast<std::int16_t>(in.take(2));
                break;
            default:
                list[i] = static_cast<std::int16_t>(9000 * std::sin(0.7 * static_cast<double>(i)));
        }
    }
    return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto index = references();
    static constexpr int rates[] = {4000, 8000, 11025, 16000, 24000, 32000, 44100, 48000};
    Input in(data, size);
    const int rate = rates[in.take(1) % 8];
    ActivityOptions options;
    options.hang_over_ms = static_cast<int>(in.take(2)) - 100;
    options.minimum_ms = static_cast<int>(in.take(1));
    if (!options.complaint().empty()) {
        options = {};
    }
    const std::uint64_t begin = in.take(4);
    ActivityDetector activity(rate, options, begin);
    SampleDetector detector(index, rate, begin);
    Checks checks;
    std::uint64_t position = begin;
    for (std::uint64_t heard = 0; !in.empty() && heard < LONGEST;) {
        const std::uint64_t operation = in.take(1);
        if (operation % 4 == 0) {
            const std::uint64_t gap = in.take(4) << (operation >> 4);
            activity.skip(gap, checks);
            detector.skip(gap, checks);
            position += gap;
            heard += 8000;
        } else if (operation == 1) {
            activity.finish(checks);
        } else {
            const auto list = samples(in, in.take(2) % 4096);
            activity.add(list.data(), list.size(), checks);
            detector.add(list.data(), list.size(), checks);
            position += list.size();
            heard += list.size() + 100;
        }
        qv::fuzz::require(activity.position() == position && detector.position() == position,
                          "every sample counts");
    }
    activity.finish(checks);
    return 0;
}
