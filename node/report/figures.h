// The figures of the media node, for the summary, the live view and the metrics. Plain values.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>
#include <string>

#include "node/calls/totals.h"
#include "node/calls/types.h"
#include "node/engine/messages.h"
#include "quorvane/media_packet.h"

namespace qv::node {

// Figures about the reports to the report nodes of calls.
struct ReportFigures {
    std::uint64_t sent = 0;
    std::uint64_t failed = 0;          // The system did not accept them.
    std::uint64_t not_allowed = 0;     // Their addresses are outside the networks for reports.
    sockaddr_in latest_not_allowed{};  // The latest of these addresses.
    std::uint64_t too_many = 0;        // Left out, because there were too many.
};

// What each lane counts for itself, and what all of them have counted.
struct LaneFigures {
    Totals totals;
    std::array<std::uint64_t, media::DECODE_RESULT_COUNT> malformed{};  // By DecodeResult.
    std::uint64_t received = 0;                                         // Datagrams.
    std::uint64_t not_allowed = 0;      // Datagrams of senders that are not allowed.
    sockaddr_in latest_not_allowed{};   // The sender of the latest one,
    Micros latest_not_allowed_time{0};  // and when it came.
    std::uint64_t overflowed = 0;       // Datagrams that the system dropped.
    std::size_t calls = 0;              // Present calls.
    Micros last_arrival{0};             // Of a datagram of an allowed sender. 0: none came.

    void add(const LaneFigures& lane);
};

struct NodeFigures : LaneFigures {
    NodeFigures() = default;
    explicit NodeFigures(const LaneFigures& lanes) : LaneFigures(lanes) {}

    std::size_t open_files = 0;
    std::uint64_t waiting_bytes = 0;      // Of audio, for the disk.
    std::uint64_t dropped_bytes = 0;      // Of audio that found no room to wait.
    std::uint64_t receive_buffer = 0;     // Bytes, of all lanes.
    std::uint64_t calls_not_written = 0;  // Calls without files because of --max-files.
    std::uint64_t lost_lines = 0;         // Of output that nobody took.
    std::uint64_t lost_frames = 0;        // Of the live view, likewise.
    std::uint64_t removed_calls = 0;      // By --keep,
    std::uint64_t removed_bytes = 0;      // and what they took on the disk.
    ReportFigures reports;
    EngineFigures engine;
    std::string address;  // The address that the node listens on.
    Micros uptime{0};

    std::uint64_t all_malformed() const {
        return std::accumulate(malformed.begin(), malformed.end(), std::uint64_t{0});
    }
};

inline void LaneFigures::add(const LaneFigures& lane) {
    totals.add(lane.totals);
    for (std::size_t i = 0; i < malformed.size(); ++i) {
        malformed[i] += lane.malformed[i];
    }
    received += lane.received;
    not_allowed += lane.not_allowed;
    if (lane.latest_not_allowed_time >= latest_not_allowed_time) {
        latest_not_allowed = lane.latest_not_allowed;
        latest_not_allowed_time = lane.latest_not_allowed_time;
    }
    overflowed += lane.overflowed;
    calls += lane.calls;
    last_arrival = std::max(last_arrival, lane.last_arrival);
}

}  // namespace qv::node
