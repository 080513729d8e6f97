#include "node/audio/wav_header.h"

#include <cstring>

namespace qv::node {

namespace {

constexpr std::size_t RATE_PLACE = 24;
constexpr std::size_t CHANNELS_PLACE = 22;
constexpr std::size_t DATA_SIZE_PLACE = 40;

constexpr int MAX_RATE = 384'000;  // Hz.

class HeaderWriter {
  public:
    HeaderWriter& text(const char* four_letters) {
        std::memcpy(&header_[place_], four_letters, 4);
        place_ += 4;
        return *this;
    }
    HeaderWriter& little_endian(std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            header_[place_++] = static_cast<unsigned char>(value >> (8 * i));
        }
        return *this;
    }
    const WavHeader& header() const { return header_; }

  private:
    WavHeader header_{};
    std::size_t place_ = 0;
};

std::uint32_t little_endian(const WavHeader& header, std::size_t place, std::size_t size) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        value |= std::uint32_t{header[place + i]} << (8 * i);
    }
    return value;
}

}  // namespace

WavHeader wav_header(const WavFormat& format, std::uint64_t data_size) {
    const auto rate = static_cast<std::uint64_t>(format.sample_rate);
    const auto channels = static_cast<std::uint64_t>(format.channels);
    return HeaderWriter()
        .text("RIFF")
        .little_endian(data_size + WAV_HEADER_SIZE - 8, 4)
        .text("WAVE")
        .text("fmt ")
        .little_endian(16, 4)  // The size of the next six fields.
        .little_endian(1, 2)   // Plain samples.
        .little_endian(channels, 2)
        .little_endian(rate, 4)
        .little_endian(rate * format.frame_size(), 4)
        .little_endian(format.frame_size(), 2)
        .little_endian(16, 2)  // Bits per sample.
        .text("data")
        .little_endian(data_size, 4)
        .header();
}

std::optional<WavHeaderFields> parse_wav_header(const WavHeader& header) {
    WavHeaderFields fields;
    fields.format.sample_rate = static_cast<int>(little_endian(header, RATE_PLACE, 4));
    fields.format.channels = static_cast<int>(little_endian(header, CHANNELS_PLACE, 2));
    fields.data_size = little_endian(header, DATA_SIZE_PLACE, 4);
    // The byte rate of a higher sample rate would not fit into its field.
    if (fields.format.sample_rate > MAX_RATE || fields.data_size > MAX_WAV_DATA_SIZE ||
        header != wav_header(fields.format, fields.data_size)) {
        return std::nullopt;
    }
    return fields;
}

}  // namespace qv::node
