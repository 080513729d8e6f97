// Types that all units of the node share: call UUIDs, times, sides, datagrams.
#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "quorvane/media_packet.h"
#include "quorvane_lib/utils_str.h"
#include "tools/sample_time.h"

namespace qv::node {

using Uuid = std::array<unsigned char, media::UUID_SIZE>;

inline Uuid uuid_of(const media::Packet& packet) {
    Uuid uuid;
    std::memcpy(uuid.data(), packet.call_uuid, uuid.size());
    return uuid;
}

// Returns the form with 36 characters.
inline std::string uuid_text(const Uuid& uuid) {
    return utils::str::print_uuid(uuid.data());
}

// A moment on the node's steady clock, or a span of time. Units that need the time receive it as an
// argument, so that tests control the clock.
using Micros = std::chrono::microseconds;

inline Micros steady_now() {
    return std::chrono::duration_cast<Micros>(std::chrono::steady_clock::now().time_since_epoch());
}

// Of one of the system's clocks, such as CLOCK_REALTIME.
inline Micros clock_now(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::chrono::seconds(now.tv_sec) + Micros(now.tv_nsec / 1000);
}

// When and from where a datagram came.
struct Arrival {
    Micros time{0};
    sockaddr_in source{};
};

// A datagram as it came.
struct Datagram {
    const unsigned char* data;
    std::size_t size;
    Arrival arrival;
};

enum class Side : std::uint8_t { ORIGINATOR, TERMINATOR };
constexpr std::size_t SIDE_COUNT = 2;
constexpr std::array<Side, SIDE_COUNT> BOTH_SIDES = {Side::ORIGINATOR, Side::TERMINATOR};

constexpr std::size_t index_of(Side side) {
    return static_cast<std::size_t>(side);
}
constexpr Side other(Side side) {
    return side == Side::ORIGINATOR ? Side::TERMINATOR : Side::ORIGINATOR;
}
constexpr const char* name_of(Side side) {
    return side == Side::ORIGINATOR ? "originator" : "terminator";
}

// The rate for audio if neither an option nor its packets determine one.
constexpr int DEFAULT_SAMPLE_RATE = 8000;
// A sender splits a longer frame into several packets.
constexpr std::uint32_t LARGEST_PACKET_SAMPLES = media::MAX_AUDIO_SIZE / 2;
// Sequence numbers and sample offsets wrap: what is ahead by less than this is the later one.
constexpr std::uint32_t HALF_RANGE = 0x80000000;

// A rate of 0 Hz is unknown.
inline double seconds_of(std::uint64_t samples, int sample_rate) {
    return tools::seconds_of_samples(samples, sample_rate != 0 ? sample_rate : DEFAULT_SAMPLE_RATE);
}
inline double seconds_of(Micros time) {
    return std::chrono::duration<double>(time).count();
}
// Between two send times. Computed as floating point, because the difference of forged times could
// overflow.
inline double seconds_between(std::int64_t begin, std::int64_t end) {
    return (static_cast<double>(end) - static_cast<double>(begin)) / 1e6;
}

// What an audio file holds when it is complete.
struct FileFacts {
    int sample_rate = 0;  // Hz.
    int channels = 0;
    std::uint64_t samples = 0;  // Of each channel.
    std::string sha256;         // Of the whole file, in hexadecimal digits. Empty unless computed.
    int resampled_from = 0;     // Hz, if the file's format does not have the rate of the audio.
    std::string not_converted;  // Why the file is still a WAV file. Usually empty.
};

// The result for a file.
struct FileReport {
    std::string path;
    std::string error;                  // Empty if the file is complete.
    std::uint64_t dropped_samples = 0;  // Replaced by silence, because the disk was too slow.
    FileFacts facts{};                  // Of audio files.
};

// A file that is being written on another thread. The owner's thread updates it.
struct PendingFile {
    FileReport report;
    bool complete = false;  // Written, or failed.
};

}  // namespace qv::node
