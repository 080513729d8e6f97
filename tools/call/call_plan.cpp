#include "tools/call/call_plan.h"

#include <algorithm>
#include <cmath>

#include "tools/sample_time.h"

namespace qv::tools::call {
namespace {

constexpr std::uint64_t MAX_FRAME_BYTES = 8192;  // the host's room for a frame

double seconds_of_side(const std::optional<Audio>& audio, const CallTimes& times) {
    if (!audio) {
        return 0;
    }
    return seconds_of_samples(samples_of(*audio, times), audio->rate);
}

}  // namespace

std::uint32_t rate_of(const CallPlan& plan) {
    return plan.read ? plan.read->rate : plan.write->rate;
}

void check_plan(const CallPlan& plan) {
    if (plan.read && plan.write && plan.read->rate != plan.write->rate) {
        throw PlanError("a call has one sample rate: " + plan.read->name + " has " +
                        std::to_string(plan.read->rate) + " Hz, " + plan.write->name + " has " +
                        std::to_string(plan.write->rate) + " Hz");
    }
    const std::uint64_t bytes = (std::uint64_t{rate_of(plan)} * plan.frame_ms + 999) / 1000 * 2;
    if (bytes > MAX_FRAME_BYTES) {
        throw PlanError("frames of " + std::to_string(plan.frame_ms) + " ms at " +
                        std::to_string(rate_of(plan)) + " Hz have " + std::to_string(bytes) +
                        " bytes; the host's hold at most " + std::to_string(MAX_FRAME_BYTES));
    }
}

std::uint64_t samples_of(const Audio& audio, const CallTimes& times) {
    if (!times.length_s) {
        return audio.samples->size();
    }
    return static_cast<std::uint64_t>(std::llround(*times.length_s * audio.rate));
}

double expected_seconds(const CallPlan& plan, const std::vector<CallTimes>& calls) {
    double last = 0;
    for (const CallTimes& times : calls) {
        double length = plan.tap_after_s + std::max(seconds_of_side(plan.read, times),
                                                    seconds_of_side(plan.write, times));
        if (plan.hangup_s) {
            length = std::min(length, *plan.hangup_s);
        }
        last = std::max(last, seconds_of(times.begin) + length);
    }
    return last;
}

}  // namespace qv::tools::call
