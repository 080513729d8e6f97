#include "node/calls/call_table.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace qv::node {

CallTable::CallTable(const CallLimits& limits, const std::vector<CallListener*>& outputs,
                     std::shared_ptr<CallDirectory> directory)
    : limits_(limits),
      outputs_{&counter_},
      directory_(directory != nullptr ? std::move(directory)
                                      : std::make_shared<CallDirectory>(limits)) {
    outputs_.insert(outputs_.end(), outputs.begin(), outputs.end());
}

void CallTable::receive(const media::Packet& packet, const Arrival& arrival) {
    totals_.count_packet(packet.type);
    Call* call = find(packet);
    if (call == nullptr) {
        call = add(packet, arrival);
    } else if (call->is_replaced_by(packet, arrival)) {
        call = replace(*call, packet, arrival);
    }
    if (call == nullptr) {
        return;
    }
    if (const auto drop = call->receive(packet, arrival)) {
        totals_.count_drop(*drop);
    }
}

Call* CallTable::find(const media::Packet& packet) {
    if (last_ != nullptr &&
        std::memcmp(last_->uuid().data(), packet.call_uuid, media::UUID_SIZE) == 0) {
        return last_;
    }
    const auto found = calls_.find(uuid_of(packet));
    return found != calls_.end() ? last_ = found->second.get() : nullptr;
}

// Returns null if the packet is dropped.
Call* CallTable::add(const media::Packet& packet, const Arrival& arrival) {
    const CallDirectory::Admission admission = directory_->admit(packet, arrival.source);
    if (admission.drop.has_value()) {
        totals_.count_drop(*admission.drop);
        return nullptr;
    }
    const Uuid uuid = uuid_of(packet);
    auto call = std::make_unique<Call>(uuid, packet.call_key, arrival, limits_, outputs_);
    if (admission.places.has_value()) {
        call->continue_from(*admission.places);
    }
    last_ = call.get();
    calls_.emplace(uuid, std::move(call));
    return last_;
}

Call* CallTable::replace(Call& call, const media::Packet& packet, const Arrival& arrival) {
    end(call, call.ending() ? EndReason::TERMINATED : EndReason::REPLACED, arrival.time);
    return add(packet, arrival);
}

void CallTable::tick(Micros now) {
    for (auto& entry : calls_) {
        entry.second->tick(now);
    }
    end_due_calls(now);
    report_ends();
    directory_->expire(now);
}

void CallTable::shut_down() {
    while (!calls_.empty()) {
        Call& call = *calls_.begin()->second;
        end(call, call.ending() ? EndReason::TERMINATED : EndReason::SHUTDOWN, call.last_seen());
    }
}

void CallTable::end_due_calls(Micros now) {
    std::vector<std::pair<Call*, EndReason>> due;
    for (auto& entry : calls_) {
        if (const auto reason = entry.second->due(now)) {
            due.emplace_back(entry.second.get(), *reason);
        }
    }
    for (const auto& [call, reason] : due) {
        end(*call, reason, now);
    }
}

void CallTable::end(Call& call, EndReason reason, Micros now) {
    call.close(reason);
    directory_->end(call, reason, now);
    if (last_ == &call) {
        last_ = nullptr;
    }
    auto over = calls_.extract(call.uuid());
    Completing completing{std::move(over.mapped()), reason};
    if (is_complete(completing)) {
        report_end(call, reason);
    } else {
        completing_.push_back(std::move(completing));
    }
}

bool CallTable::is_complete(Completing& each) {
    if (!each.summed_up && !each.call->completing()) {
        each.summed_up = true;
        each.call->sum_up(each.reason);
    }
    return each.summed_up && !each.call->completing();
}

void CallTable::report_end(Call& call, EndReason reason) {
    call.report_end(reason);
    directory_->release();
}

void CallTable::report_ends() {
    const auto complete =
        std::stable_partition(completing_.begin(), completing_.end(),
                              [](Completing& each) { return !is_complete(each); });
    std::vector<Completing> ends(std::make_move_iterator(complete),
                                 std::make_move_iterator(completing_.end()));
    completing_.erase(complete, completing_.end());
    for (const Completing& each : ends) {
        report_end(*each.call, each.reason);
    }
}

}  // namespace qv::node
