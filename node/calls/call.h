// One call as the receiver knows it. Owned by the call table; others only read it, and
// only while a listener's function runs. Belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "node/audio/level_meter.h"
#include "node/audio/recording.h"
#include "node/calls/pause_finder.h"
#include "node/calls/rate_estimator.h"
#include "node/calls/reorder_buffer.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

// The start packet's fields, kept.
struct StartFields {
    std::uint16_t call_flags = 0;
    std::int64_t send_time = 0;
    std::uint64_t created_time = 0;
    std::uint64_t configured_time = 0;
    std::int64_t configured_clock = 0;
    std::uint64_t rule_id = 0;
    std::string report_node;  // Empty when not given.
    media::features16_t features{};
    std::string call_reference;

    bool outbound() const { return (call_flags & media::FLAG_OUTBOUND) != 0; }
    bool rule_id_given() const { return (call_flags & media::FLAG_RULE_ID) != 0; }
};

// Where a side goes on.
struct SidePlace {
    std::uint32_t sequence_number;
    std::uint32_t sample_offset;
};
// Nothing for a side of which nothing came.
using SidePlaces = std::array<std::optional<SidePlace>, SIDE_COUNT>;

struct CallSide {
    explicit CallSide(const ReorderBuffer::Limits& limits) : tracker(limits) {}

    ReorderBuffer tracker;
    RateEstimator rate;
    PauseFinder pauses;
    LevelMeter level;
    std::optional<std::uint8_t> leg;   // Which leg carries the side; set by its first packet.
    std::int64_t first_send_time = 0;  // Of the side's first packet.
    std::int64_t last_send_time = 0;
    std::uint64_t bytes = 0;           // Of audio that came, repeated audio included.
    int sample_rate = 0;               // 0 while it is not known.
    bool rate_assumed = false;         // The rate could not be told from the packets.
    std::uint64_t joined_at = 0;       // Sample offset at which a late receiver began.
    std::optional<SidePlace> left_at;  // By an earlier call, which this one continues.
};

enum class CallState { ACTIVE, ENDING };

enum class EndReason {
    TERMINATED,  // The terminate packet came.
    REPLACED,    // Another start of the same call came without a terminate.
    TIMED_OUT,   // Nothing came for too long.
    TOO_OLD,
    SHUTDOWN,  // The receiver ends.
};

constexpr const char* name_of(EndReason reason) {
    switch (reason) {
        case EndReason::TERMINATED:
            return "terminated";
        case EndReason::REPLACED:
            return "replaced";
        case EndReason::TIMED_OUT:
            return "timed_out";
        case EndReason::TOO_OLD:
            return "too_old";
        case EndReason::SHUTDOWN:
            return "shutdown";
    }
    return "unknown";
}

struct Call {
    Call(const Uuid& call_uuid, std::uint64_t key, const ReorderBuffer::Limits& limits)
        : uuid(call_uuid), call_key(key), sides{CallSide(limits), CallSide(limits)} {}

    const Uuid uuid;
    const std::uint64_t call_key;
    CallState state = CallState::ACTIVE;
    std::optional<StartFields> start;  // Nothing until the start packet comes.
    bool started_late = false;         // Other packets came before the start packet.
    media::features16_t features{};    // In effect: the start's, and the updates'.
    std::uint64_t control_packets = 0;
    std::int64_t control_time = 0;  // Send time of the latest one.
    Micros first_seen{0};
    Micros last_seen{0};
    Micros ends_at{0};                // While ENDING.
    std::int64_t terminate_time = 0;  // Send time of the terminate packet, while ENDING.
    // Send time of the first data packet of either side: the beginning of the time axis.
    std::optional<std::int64_t> first_audio_time;
    std::array<CallSide, SIDE_COUNT> sides;
    std::unique_ptr<Recording> recording;
    std::vector<FileReport> failed_files;  // Those that the listeners have been told of.

    CallSide& side(Side which) { return sides[index_of(which)]; }
    const CallSide& side(Side which) const { return sides[index_of(which)]; }
};

}  // namespace qv::node
