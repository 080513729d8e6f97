#include "tools/call/schedule.h"

#include <random>

namespace qv::tools::call {

Time time_of_seconds(double seconds) {
    return std::chrono::duration_cast<Time>(std::chrono::duration<double>(seconds));
}

double seconds_of(Time time) {
    return std::chrono::duration<double>(time).count();
}

std::vector<CallTimes> plan_calls(const SchedulePlan& plan) {
    std::mt19937_64 random(plan.seed);
    std::uniform_real_distribution<double> part(0, 1);
    std::vector<CallTimes> calls(plan.calls);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        calls[i].begin = time_of_seconds(static_cast<double>(i) / plan.rate);
        if (plan.calls > 1) {
            calls[i].phase = time_of_seconds(part(random) * seconds_of(plan.frame_time));
        }
        if (plan.length_s) {
            calls[i].length_s =
                plan.length_s->min + part(random) * (plan.length_s->max - plan.length_s->min);
        }
    }
    return calls;
}

void TimerQueue::add(Time at, Step step) {
    entries_.push({at, added_++, step});
}

std::optional<Time> TimerQueue::next() const {
    if (entries_.empty()) {
        return std::nullopt;
    }
    return entries_.top().at;
}

std::optional<Step> TimerQueue::take(Time now) {
    if (entries_.empty() || entries_.top().at > now) {
        return std::nullopt;
    }
    const Step step = entries_.top().step;
    entries_.pop();
    return step;
}

}  // namespace qv::tools::call
