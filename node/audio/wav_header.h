// The 44-byte header of a WAV file of 16-bit samples.
//
// Plain functions without state; any thread may call them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace qv::node {

constexpr std::size_t WAV_HEADER_SIZE = 44;

// The size fields of a WAV file have 32 bits. The size of the whole file includes the header.
constexpr std::uint64_t MAX_WAV_DATA_SIZE = 0xFFFFFFFF - WAV_HEADER_SIZE;

struct WavFormat {
    int sample_rate = 0;  // Hz.
    int channels = 0;

    // Bytes of one sample of every channel.
    std::size_t frame_size() const {
        return static_cast<std::size_t>(channels) * sizeof(std::int16_t);
    }
};

using WavHeader = std::array<unsigned char, WAV_HEADER_SIZE>;

// `data_size` is the number of bytes of samples, at most MAX_WAV_DATA_SIZE.
WavHeader wav_header(const WavFormat& format, std::uint64_t data_size);

struct WavHeaderFields {
    WavFormat format;
    std::uint64_t data_size = 0;  // Bytes.
};

// Reads a header that wav_header() wrote. Returns nullopt for any other bytes.
std::optional<WavHeaderFields> parse_wav_header(const WavHeader& header);

}  // namespace qv::node
