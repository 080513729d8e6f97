#include "node/calls/call_table.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace qv::node {

namespace {

constexpr std::size_t MAX_REMEMBERED = 100'000;

Uuid uuid_of(const media::Packet& packet) {
    Uuid uuid;
    std::memcpy(uuid.data(), packet.call_uuid, uuid.size());
    return uuid;
}

}  // namespace

CallTable::CallTable(const CallLimits& limits, const std::vector<CallListener*>& outputs)
    : limits_(limits),
      outputs_{&counter_},
      terminated_(MAX_REMEMBERED, limits.remember_ended),
      left_behind_(MAX_REMEMBERED, limits.max_age) {
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
    const Uuid uuid = uuid_of(packet);
    if (is_after_end(uuid, packet)) {
        totals_.count_drop(Drop::AFTER_END);
        return nullptr;
    }
    if (is_foreign(uuid, arrival.source)) {
        totals_.count_drop(Drop::OTHER_ADDRESS);
        return nullptr;
    }
    // Calls whose files wait for a disk that stands still take memory, too.
    if (calls_.size() + completing_.size() >= limits_.max_calls) {
        totals_.count_drop(Drop::TOO_MANY_CALLS);
        return nullptr;
    }
    auto call = std::make_unique<Call>(uuid, packet.call_key, arrival, limits_, outputs_);
    continue_earlier(*call, packet);
    last_ = call.get();
    calls_.emplace(uuid, std::move(call));
    return last_;
}

// Data sent after the terminate packet has overtaken the next start packet. A control packet may
// have been sent after the terminate packet and come before it.
bool CallTable::is_after_end(const Uuid& uuid, const media::Packet& packet) const {
    const Ended* const ended = terminated_.find(uuid);
    switch (packet.type) {
        case media::PacketType::START:
            return false;
        case media::PacketType::TERMINATE:
            return true;
        case media::PacketType::CONTROL:
            return ended != nullptr;
        case media::PacketType::DATA:
            break;
    }
    return ended != nullptr && packet.send_time <= ended->terminate_time;
}

// While an ended call is remembered, it still belongs to its sender's address.
bool CallTable::is_foreign(const Uuid& uuid, const sockaddr_in& source) const {
    if (limits_.any_source) {
        return false;
    }
    const Ended* const ended = terminated_.find(uuid);
    const LeftBehind* const left = left_behind_.find(uuid);
    return (ended != nullptr && ended->address != source.sin_addr.s_addr) ||
           (left != nullptr && left->address != source.sin_addr.s_addr);
}

// Continues the sides of an earlier call that was not terminated, unless they start again.
void CallTable::continue_earlier(Call& call, const media::Packet& packet) {
    const LeftBehind* const left = left_behind_.find(call.uuid());
    if (left == nullptr) {
        return;
    }
    if (packet.type != media::PacketType::START) {
        call.continue_from(left->places);
    }
    left_behind_.erase(call.uuid());
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
    terminated_.expire(now);
    left_behind_.expire(now);
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
    remember(call, reason, now);
    if (last_ == &call) {
        last_ = nullptr;
    }
    auto over = calls_.extract(call.uuid());
    Completing completing{std::move(over.mapped()), reason};
    if (is_complete(completing)) {
        call.report_end(reason);
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

void CallTable::report_ends() {
    const auto complete =
        std::stable_partition(completing_.begin(), completing_.end(),
                              [](Completing& each) { return !is_complete(each); });
    std::vector<Completing> ends(std::make_move_iterator(complete),
                                 std::make_move_iterator(completing_.end()));
    completing_.erase(complete, completing_.end());
    for (const Completing& each : ends) {
        each.call->report_end(each.reason);
    }
}

void CallTable::remember(const Call& call, EndReason reason, Micros now) {
    const in_addr_t address = call.source().sin_addr.s_addr;
    if (reason == EndReason::TERMINATED) {
        terminated_.keep(call.uuid(), {address, call.terminate_time()}, now);
    }
    if (reason != EndReason::TERMINATED || call.ended_implausibly()) {
        left_behind_.keep(call.uuid(), {address, call.places()}, now);
    }
}

}  // namespace qv::node
