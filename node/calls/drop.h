// Why a well-formed packet was not used.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qv::node {

enum class Drop : std::uint8_t {
    TOO_MANY_CALLS,
    // The call has ended. Also for a second terminate packet, or one of an unknown call.
    AFTER_END,
    OTHER_CALL_KEY,  // The UUID belongs to a call with another key.
    OTHER_ADDRESS,   // The call belongs to another sender's address.
    OTHER_LEG,       // The other leg already carries this side of the call.
    REPEATED_START,  // A repeated start packet.
    OLD_CONTROL,     // A repeated control packet, or one sent before the latest.
    FAR_AHEAD,       // A terminate packet whose send time the call's other packets refute.
    DUPLICATE,       // Data packets, as counted by the reorder buffer:
    LATE,
    IMPLAUSIBLE,
};
constexpr std::size_t DROP_COUNT = 11;

constexpr const char* describe(Drop reason) {
    switch (reason) {
        case Drop::TOO_MANY_CALLS:
            return "too many calls at once";
        case Drop::AFTER_END:
            return "call has ended";
        case Drop::OTHER_CALL_KEY:
            return "call key differs from the call's";
        case Drop::OTHER_ADDRESS:
            return "call belongs to another address";
        case Drop::OTHER_LEG:
            return "call side is carried by the other leg";
        case Drop::REPEATED_START:
            return "repeated start packet";
        case Drop::OLD_CONTROL:
            return "control packet repeated or overtaken";
        case Drop::FAR_AHEAD:
            return "terminate packet sent far ahead of its call";
        case Drop::DUPLICATE:
            return "duplicate data packet";
        case Drop::LATE:
            return "data packet too late";
        case Drop::IMPLAUSIBLE:
            return "implausible sequence number or sample offset";
    }
    return "unknown reason";
}

// The reason as the label of a metric.
constexpr const char* name_of(Drop reason) {
    switch (reason) {
        case Drop::TOO_MANY_CALLS:
            return "too_many_calls";
        case Drop::AFTER_END:
            return "after_end";
        case Drop::OTHER_CALL_KEY:
            return "other_call_key";
        case Drop::OTHER_ADDRESS:
            return "other_address";
        case Drop::OTHER_LEG:
            return "other_leg";
        case Drop::REPEATED_START:
            return "repeated_start";
        case Drop::OLD_CONTROL:
            return "old_control";
        case Drop::FAR_AHEAD:
            return "far_ahead";
        case Drop::DUPLICATE:
            return "duplicate";
        case Drop::LATE:
            return "late";
        case Drop::IMPLAUSIBLE:
            return "implausible";
    }
    return "unknown";
}

}  // namespace qv::node
