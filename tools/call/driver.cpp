#include "tools/call/driver.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "tools/call/process_usage.h"
#include "tools/call/text.h"

namespace qv::tools::call {
namespace {

constexpr char APPLICATION[] = "quorvane";
constexpr Time TICK = std::chrono::milliseconds(100);

bool is_failure(const host::ApiAnswer& answer) {
    return answer.status != SWITCH_STATUS_SUCCESS || answer.text.empty() ||
           answer.text.compare(0, 4, "-ERR") == 0;
}

}  // namespace

void EndedSides::add(std::size_t call) {
    {
        const LockGuard guard(lock_);
        calls_.push_back(call);
    }
    added_.notify_one();
}

std::vector<std::size_t> EndedSides::take() {
    const LockGuard guard(lock_);
    return std::exchange(calls_, {});
}

void EndedSides::wait_until(std::chrono::steady_clock::time_point time) {
    const LockGuard guard(lock_);
    while (calls_.empty() && added_.wait_until(lock_, time)) {
    }
}

Driver::Driver(host::EmbeddedHost& host, const CallPlan& plan, RunListener& listener)
    : host_(host),
      plan_(plan),
      listener_(listener),
      times_(plan_calls(plan.schedule)),
      tally_(std::make_shared<FrameTally>(!plan.free_running)),
      expected_s_(expected_seconds(plan, times_)),
      calls_(times_.size()) {}

RunTotals Driver::run(const std::atomic<bool>& stop) {
    const ProcessUsage before = process_usage();
    totals_.calls_planned = times_.size();
    totals_.memory_before = totals_.memory_most = before.resident_bytes;
    start_ = Clock::now();
    fill_timers();
    Time next_tick = TICK;
    while (!finished() && !stop) {
        const Time at = now();
        perform_due(at);
        if (at >= next_tick) {
            tick(at);
            next_tick = at + TICK;
        }
        ended_->wait_until(start_ + std::min(timers_.next().value_or(next_tick), next_tick));
    }
    cut_all();
    const ProcessUsage after = process_usage();
    totals_.elapsed_s = seconds_of(now());
    totals_.user_cpu_s = after.user_cpu_s - before.user_cpu_s;
    totals_.system_cpu_s = after.system_cpu_s - before.system_cpu_s;
    return totals_;
}

void Driver::fill_timers() {
    for (std::size_t item = 0; item < plan_.faults.size(); ++item) {
        const FaultSpan& fault = plan_.faults[item];
        if (fault.from_s) {
            timers_.add(time_of_seconds(*fault.from_s), {Step::Kind::FAULT, 0, item, true});
        }
        if (fault.until_s) {
            timers_.add(time_of_seconds(*fault.until_s), {Step::Kind::FAULT, 0, item, false});
        }
    }
    for (std::size_t index = 0; index < times_.size(); ++index) {
        timers_.add(times_[index].begin, {Step::Kind::BEGIN, index});
    }
}

void Driver::perform_due(Time due_by) {
    while (const auto step = timers_.take(due_by)) {
        perform(*step);
    }
    for (const std::size_t index : ended_->take()) {
        side_ended(index);
    }
}

void Driver::perform(const Step& step) {
    switch (step.kind) {
        case Step::Kind::BEGIN:
            return begin_or_wait(step.call);
        case Step::Kind::TAP:
            return tap(step.call);
        case Step::Kind::COMMAND:
            return run_command(step.call, plan_.commands[step.item]);
        case Step::Kind::HANGUP:
            return hang_up(step.call, &RunTotals::calls_ended);
        case Step::Kind::FAULT:
            return switch_planned_fault(step.item, step.on);
    }
}

void Driver::begin_or_wait(std::size_t index) {
    if (plan_.concurrent > 0 && live_ >= plan_.concurrent) {
        waiting_.push_back(index);
    } else {
        begin(index);
    }
}

void Driver::begin(std::size_t index) {
    host::CallOptions options;
    options.uuid = plan_.uuid;
    options.direction =
        plan_.outbound ? SWITCH_CALL_DIRECTION_OUTBOUND : SWITCH_CALL_DIRECTION_INBOUND;
    options.rate = rate_of(plan_);
    options.frame_time = std::chrono::milliseconds(plan_.frame_ms);
    LiveCall& live = calls_[index];
    live.call = host_.start_call(std::move(options));
    live.begin = now();
    const std::string uuid = live.call->uuid();
    for (const auto& [name, value] : plan_.variables) {
        live.call->set_variable(name, fill_placeholders(value, uuid, index + 1));
    }
    ++totals_.calls_begun;
    totals_.most_at_once = std::max(totals_.most_at_once, ++live_);
    listener_.call_begun(live.begin, index + 1, uuid);

    live.commands_left = plan_.commands.size();
    const auto at = [&live](double seconds) { return live.begin + time_of_seconds(seconds); };
    timers_.add(at(plan_.tap_after_s), {Step::Kind::TAP, index});
    for (std::size_t item = 0; item < plan_.commands.size(); ++item) {
        timers_.add(at(plan_.commands[item].at_s), {Step::Kind::COMMAND, index, item});
    }
    if (plan_.hangup_s) {
        timers_.add(at(*plan_.hangup_s), {Step::Kind::HANGUP, index});
    }
}

void Driver::tap(std::size_t index) {
    host::Call* const call = calls_[index].call.get();
    if (!call) {
        return;
    }
    const bool tapped = call->execute(APPLICATION) && !call->bugs().empty();
    totals_.calls_tapped += tapped ? 1 : 0;
    listener_.call_tapped(now(), index + 1, tapped);
    start_media(index, *call);
}

void Driver::start_media(std::size_t index, host::Call& call) {
    host::MediaPlan media;
    media.read = source_of(plan_.read, index);
    media.write = source_of(plan_.write, index);
    media.pace = plan_.free_running ? host::Pace::FREE_RUNNING : host::Pace::PACED;
    media.threads = plan_.own_threads ? host::MediaThreads::OWN : host::MediaThreads::POOL;
    media.delay = times_[index].phase;
    media.observer = tally_;
    calls_[index].sides_left = (media.read ? 1 : 0) + (media.write ? 1 : 0);
    call.start_media(std::move(media));
}

std::unique_ptr<host::FrameSource> Driver::source_of(const std::optional<Audio>& audio,
                                                     std::size_t index) {
    if (!audio) {
        return nullptr;
    }
    return std::make_unique<SideSource>(audio->samples, FrameSizes(audio->rate, plan_.frame_ms),
                                        samples_of(*audio, times_[index]), plan_.afterwards,
                                        [ended = ended_, index] { ended->add(index); });
}

void Driver::run_command(std::size_t index, const TimedCommand& command) {
    LiveCall& live = calls_[index];
    if (!live.call) {
        return;  // counted as missed when the call ended
    }
    --live.commands_left;
    ++totals_.commands_run;
    const std::string text = fill_placeholders(command.text, live.call->uuid(), index + 1);
    const host::ApiAnswer answer = host_.api(text);
    if (is_failure(answer)) {
        if (++totals_.commands_failed == 1) {
            totals_.first_failed = FailedCommand{index + 1, text, answer.text};
        }
    }
    listener_.command_run(now(), index + 1, text, answer.text);
}

void Driver::switch_planned_fault(std::size_t item, bool on) {
    switch_fault(host_.faults(), plan_.faults[item], on);
    listener_.fault_switched(now(), plan_.faults[item], on);
}

void Driver::side_ended(std::size_t index) {
    if (calls_[index].call && --calls_[index].sides_left == 0) {
        hang_up(index, &RunTotals::calls_ended);
    }
}

void Driver::hang_up(std::size_t index, std::size_t RunTotals::*counted_as) {
    LiveCall& live = calls_[index];
    if (!live.call) {
        return;
    }
    live.call->hangup();
    const Time at = now();
    totals_.call_seconds += seconds_of(at - live.begin);
    ++(totals_.*counted_as);
    --live_;
    miss_commands(index);
    live.call.reset();
    listener_.call_over(at, index + 1);
    if (waiting_.empty()) {
        return;
    }
    timers_.add(at, {Step::Kind::BEGIN, waiting_.front()});
    waiting_.pop_front();
}

// Commands run in the order of their times, so the remaining ones are the last.
void Driver::miss_commands(std::size_t index) {
    const std::size_t left = calls_[index].commands_left;
    totals_.commands_missed += left;
    for (std::size_t item = plan_.commands.size() - left; item < plan_.commands.size(); ++item) {
        listener_.command_missed(now(), index + 1, plan_.commands[item].text);
    }
}

void Driver::cut_all() {
    waiting_.clear();
    for (std::size_t index = 0; index < calls_.size(); ++index) {
        hang_up(index, &RunTotals::calls_cut);
    }
}

void Driver::tick(Time at) {
    sample_memory();
    listener_.progress({seconds_of(at), expected_s_, live_, totals_.calls_ended,
                        totals_.calls_planned, tally_->frames()});
}

void Driver::sample_memory() {
    totals_.memory_most = std::max(totals_.memory_most, process_usage().resident_bytes);
}

bool Driver::finished() const {
    return totals_.calls_ended == totals_.calls_planned;
}

}  // namespace qv::tools::call
