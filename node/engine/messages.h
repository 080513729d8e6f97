// What the node hands to the message system: events, and audio in chunks. Plain values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qv::node {

// Takes the place of the call in the subjects of events that concern no call.
inline const std::string NO_CALL = "node";

struct EngineEvent {
    std::string call;  // The call's UUID, or NO_CALL.
    std::string kind;  // "start", "end"...
    std::string text;  // One JSON object.
    // The publisher sets these.
    std::string id{};          // Unique in all runs of all nodes.
    std::uint64_t number = 0;  // In this run, from 1 on. 0 if an earlier run made the event.

    // What it takes in memory, about.
    std::uint64_t size() const { return 256 + call.size() + kind.size() + text.size() + id.size(); }
};

// Audio of a side, or the end of its audio.
struct EngineChunk {
    std::string call;            // The call's UUID.
    std::string call_key;        // "0x" and 16 digits.
    std::string side;            // "originator" or "terminator".
    std::string stream;          // Unique for each run, call and side.
    std::uint64_t sequence = 0;  // Counts the chunks of the stream from 1 on.
    std::uint64_t position = 0;  // Of the first sample.
    std::int64_t send_time = 0;  // Of the first sample: microseconds on the sender's clock.
    int sample_rate = 0;         // Hz.
    std::uint64_t gap = 0;       // Samples that are missing before it. Positions count them.
    std::uint64_t pause = 0;     // Samples of silence before it. Positions do not count them.
    std::string end{};           // Why the call ended, if this is the end of the stream.
    std::vector<std::int16_t> samples{};

    std::uint64_t size() const { return 384 + samples.size() * sizeof(std::int16_t); }
};

// Figures of the connection to the message system.
struct EngineFigures {
    bool wanted = false;  // Whether there is such a connection at all.
    bool connected = false;
    std::uint64_t stored_events = 0;
    std::uint64_t lost_events = 0;  // Dropped: too many waited, or they were too long.
    std::uint64_t waiting_events = 0;
    std::uint64_t sent_chunks = 0;
    std::uint64_t lost_chunks = 0;
    std::uint64_t waiting_chunks = 0;
    std::uint64_t waiting_bytes = 0;  // Of events and chunks.
};

}  // namespace qv::node
