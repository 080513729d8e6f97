// The figures of the whole media node, for the summary, the live view and the metrics. Plain
// values.
#pragma once

#include <array>
#include <cstdint>
#include <numeric>
#include <string>

#include "node/calls/totals.h"
#include "node/calls/types.h"
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

struct NodeFigures {
    Totals totals;
    std::array<std::uint64_t, media::DECODE_RESULT_COUNT> malformed{};  // By DecodeResult.
    std::uint64_t received = 0;                                         // Datagrams.
    std::uint64_t not_allowed = 0;     // Datagrams of senders that are not allowed.
    sockaddr_in latest_not_allowed{};  // The sender of the latest one.
    std::uint64_t overflowed = 0;      // Datagrams that the system dropped.
    std::size_t calls = 0;             // Present calls.
    std::size_t open_files = 0;
    std::uint64_t waiting_bytes = 0;      // Of audio, for the disk.
    std::uint64_t dropped_bytes = 0;      // Of audio that found no room to wait.
    int receive_buffer = 0;               // Bytes.
    std::uint64_t calls_not_written = 0;  // Calls without files because of --max-files.
    std::uint64_t lost_lines = 0;         // Of output that nobody took.
    std::uint64_t lost_frames = 0;        // Of the live view, likewise.
    ReportFigures reports;
    std::string address;  // The address that the node listens on.
    Micros uptime{0};

    std::uint64_t all_malformed() const {
        return std::accumulate(malformed.begin(), malformed.end(), std::uint64_t{0});
    }
};

}  // namespace qv::node
