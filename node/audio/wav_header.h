// The 44 bytes before the samples of a WAV file of 16-bit samples.
//
// Plain functions without state; any thread may call them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace qv::node {

constexpr std::size_t WAV_HEADER_SIZE = 44;

// The sizes of a WAV file have 32 bits, and that of the whole file counts the header, too.
constexpr std::uint64_t MAX_WAV_DATA_SIZE = 0xFFFFFFFF - WAV_HEADER_SIZE;

struct WavFormat {
    int sample_rate = 0;  // Hz.
    int channels = 0;

    // One sample of each channel.
    std::size_t frame_size() const {
        return static_cast<std::size_t>(channels) * sizeof(std::int16_t);
    }
};

using WavHeader = std::array<unsigned char, WAV_HEADER_SIZE>;

// `data_size` counts the bytes of the samples and is at most MAX_WAV_DATA_SIZE.
WavHeader wav_header(const WavFormat& format, std::uint64_t data_size);

struct WavHeaderFields {
    WavFormat format;
    std::uint64_t data_size = 0;  // Bytes.
};

// Reads a header that wav_header() made; nothing when the bytes are something else.
std::optional<WavHeaderFields> parse_wav_header(const WavHeader& header);

}  // namespace qv::node
