#include "node/calls/totals.h"

#include <algorithm>
#include <functional>

#include "node/calls/call.h"

namespace qv::node {

namespace {

template <typename Counters>
void add_each(Counters& sums, const Counters& others) {
    std::transform(sums.begin(), sums.end(), others.begin(), sums.begin(), std::plus<>());
}

}  // namespace

void Totals::add(const Totals& others) {
    add_each(packets, others.packets);
    add_each(dropped, others.dropped);
    calls_begun += others.calls_begun;
    calls_ended += others.calls_ended;
    calls_not_terminated += others.calls_not_terminated;
    calls_without_start += others.calls_without_start;
    calls_apart += others.calls_apart;
    audio_bytes += others.audio_bytes;
    gaps += others.gaps;
    lost_packets += others.lost_packets;
    reordered += others.reordered;
    silence_samples += others.silence_samples;
    pauses += others.pauses;
    assumed_rates += others.assumed_rates;
    rate_changes += others.rate_changes;
    file_errors += others.file_errors;
}

std::unique_ptr<CallListener> CallCounter::begin_call(Call& /*call*/) {
    ++totals_.calls_begun;
    return nullptr;
}

void CallCounter::terminate_refused(const Call& /*call*/, const media::Packet& /*packet*/) {
    totals_.count_drop(Drop::FAR_AHEAD);
}

void CallCounter::data(const Call& /*call*/, const media::Packet& packet) {
    totals_.audio_bytes += packet.sample_count * sizeof(std::int16_t);
}

void CallCounter::rate_decided(const Call& call, Side side) {
    if (call.side(side).rate_assumed()) {
        ++totals_.assumed_rates;
    }
}

void CallCounter::rate_changed(const Call& /*call*/, Side /*side*/, const RateChange& /*change*/) {
    ++totals_.rate_changes;
}

void CallCounter::pause(const Call& /*call*/, Side /*side*/, const Pause& /*pause*/) {
    ++totals_.pauses;
}

void CallCounter::gap(const Call& /*call*/, Side /*side*/, const Gap& gap) {
    ++totals_.gaps;
    totals_.lost_packets += gap.lost_packets;
    totals_.silence_samples += gap.filled_samples;
}

void CallCounter::file_failed(const Call& /*call*/, const FileReport& /*file*/) {
    ++totals_.file_errors;
}

void CallCounter::ended(const Call& call, EndReason reason) {
    ++totals_.calls_ended;
    totals_.calls_not_terminated += reason == EndReason::TERMINATED ? 0 : 1;
    totals_.calls_without_start += call.start().has_value() ? 0 : 1;
    totals_.calls_apart += call.sides_may_be_apart() ? 1 : 0;
    for (const Side side : BOTH_SIDES) {
        totals_.reordered += call.side(side).stats().reordered;
    }
}

}  // namespace qv::node
