#include "node/calls/call_directory.h"

namespace qv::node {

namespace {

constexpr std::size_t MAX_REMEMBERED = 100'000;

}  // namespace

CallDirectory::CallDirectory(const CallLimits& limits)
    : max_calls_(limits.max_calls),
      any_source_(limits.any_source),
      terminated_(MAX_REMEMBERED, limits.remember_ended),
      left_behind_(MAX_REMEMBERED, limits.max_age) {}

CallDirectory::Admission CallDirectory::admit(const media::Packet& packet,
                                              const sockaddr_in& source) {
    const Uuid uuid = uuid_of(packet);
    const LockGuard lock(mutex_);
    if (const auto reason = reason_to_drop(uuid, packet, source)) {
        return {reason, std::nullopt};
    }
    present_.insert(uuid);
    ++counted_;
    Admission admission;
    const LeftBehind* const left = left_behind_.find(uuid);
    if (left != nullptr) {
        // A start packet starts the sides again.
        if (packet.type != media::PacketType::START) {
            admission.places = left->places;
        }
        left_behind_.erase(uuid);
    }
    return admission;
}

std::optional<Drop> CallDirectory::reason_to_drop(const Uuid& uuid, const media::Packet& packet,
                                                  const sockaddr_in& source) const {
    // The table that asks does not have the call, so its packets have another key.
    if (present_.count(uuid) != 0) {
        return Drop::OTHER_CALL_KEY;
    }
    if (is_after_end(uuid, packet)) {
        return Drop::AFTER_END;
    }
    if (is_foreign(uuid, source)) {
        return Drop::OTHER_ADDRESS;
    }
    // Calls whose files wait for a disk that stands still take memory, too.
    if (counted_ >= max_calls_) {
        return Drop::TOO_MANY_CALLS;
    }
    return std::nullopt;
}

// Data sent after the terminate packet has overtaken the next start packet. A control packet may
// have been sent after the terminate packet and come before it.
bool CallDirectory::is_after_end(const Uuid& uuid, const media::Packet& packet) const {
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
bool CallDirectory::is_foreign(const Uuid& uuid, const sockaddr_in& source) const {
    if (any_source_) {
        return false;
    }
    const Ended* const ended = terminated_.find(uuid);
    const LeftBehind* const left = left_behind_.find(uuid);
    return (ended != nullptr && ended->address != source.sin_addr.s_addr) ||
           (left != nullptr && left->address != source.sin_addr.s_addr);
}

void CallDirectory::end(const Call& call, EndReason reason, Micros now) {
    const in_addr_t address = call.source().sin_addr.s_addr;
    const LockGuard lock(mutex_);
    present_.erase(call.uuid());
    if (reason == EndReason::TERMINATED) {
        terminated_.keep(call.uuid(), {address, call.terminate_time()}, now);
    }
    if (reason != EndReason::TERMINATED || call.ended_implausibly()) {
        left_behind_.keep(call.uuid(), {address, call.places()}, now);
    }
}

void CallDirectory::release() {
    const LockGuard lock(mutex_);
    --counted_;
}

void CallDirectory::expire(Micros now) {
    const LockGuard lock(mutex_);
    terminated_.expire(now);
    left_behind_.expire(now);
}

}  // namespace qv::node
