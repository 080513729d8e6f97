// Fuzzes a datagram: decodes it as receivers in C++ and in C do and writes it again.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/support/both_decoders.h"
#include "fuzz/support/require.h"
#include "quorvane/media_packet.h"

namespace {

using qv::media::DecodeResult;
using qv::media::Packet;
using qv::media::PacketType;

std::size_t u16_at(const std::vector<std::uint8_t>& data, std::size_t offset) {
    return data[offset] + 256u * data[offset + 1];
}

// The rules of the format, field by field.
bool is_valid(const std::vector<std::uint8_t>& data) {
    const std::size_t size = data.size();
    if (size < 40 || size > 1376) {
        return false;
    }
    const std::vector<std::uint8_t> head(data.begin(), data.begin() + 6);
    if (head == std::vector<std::uint8_t>{0xFF, 0x00, 0xFF, 0x00, 0x81, 0x01}) {
        return size >= 83 && size == 82 + u16_at(data, 80) && data.back() == 0;
    }
    if (head == std::vector<std::uint8_t>{0xFF, 0x00, 0xFF, 0x00, 0x82, 0x01}) {
        return size == 40;
    }
    if (head == std::vector<std::uint8_t>{0xFF, 0x00, 0xFF, 0x00, 0x83, 0x01}) {
        return size >= 50 && size <= 1372 && size == 50 + 2 * u16_at(data, 48);
    }
    return head == std::vector<std::uint8_t>{0xFF, 0x00, 0xFF, 0x00, 0x84, 0x01} && size == 42;
}

class Writer {
  public:
    std::vector<std::uint8_t> bytes;

    void little_endian(std::uint64_t value, int size) {
        for (int i = 0; i < size; ++i) {
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    }
    void copy(const void* data, std::size_t size) {
        const auto* const begin = static_cast<const std::uint8_t*>(data);
        bytes.insert(bytes.end(), begin, begin + size);
    }
};

std::vector<std::uint8_t> written_again(const Packet& packet) {
    Writer out;
    out.little_endian(0x00FF00FF, 4);
    out.little_endian(static_cast<std::uint8_t>(packet.type), 1);
    out.little_endian(1, 1);
    out.little_endian(packet.leg_word, 2);
    out.little_endian(packet.call_key, 8);
    out.copy(packet.call_uuid, 16);
    out.little_endian(static_cast<std::uint64_t>(packet.send_time), 8);
    if (packet.type == PacketType::START) {
        out.little_endian(packet.created_time, 8);
        out.little_endian(packet.configured_time, 8);
        out.little_endian(static_cast<std::uint64_t>(packet.configured_clock), 8);
        out.little_endian(packet.rule_id, 8);
        out.copy(packet.report_node_address, 4);
        out.little_endian(packet.report_node_port / 256u, 1);
        out.little_endian(packet.report_node_port % 256u, 1);
        out.little_endian(packet.features.supported, 1);
        out.little_endian(packet.features.active, 1);
        out.little_endian(packet.call_reference_length + 1, 2);
        out.copy(packet.call_reference, packet.call_reference_length + 1);
    } else if (packet.type == PacketType::DATA) {
        out.little_endian(packet.sequence_number, 4);
        out.little_endian(packet.sample_offset, 4);
        out.little_endian(packet.sample_count, 2);
        out.copy(packet.audio, packet.sample_count * std::size_t{2});
    } else if (packet.type == PacketType::CONTROL) {
        out.little_endian(packet.features.supported, 1);
        out.little_endian(packet.features.active, 1);
    }
    return out.bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::uint8_t> datagram(data, data + size);
    qv::fuzz::require_equal("what the decoder in C finds differently",
                            qv::fuzz::decoders_differ_in(data, size), std::string());
    Packet packet;
    const DecodeResult result = qv::media::decode_packet(data, size, packet);
    qv::fuzz::require_equal("whether it is a packet", result == DecodeResult::OK,
                            is_valid(datagram));
    qv::fuzz::require(std::strcmp(qv::media::describe(result), "unknown result") != 0,
                      "every result has its words");
    if (result == DecodeResult::OK) {
        qv::fuzz::require(written_again(packet) == datagram, "the fields are those of the bytes");
    }
    return 0;
}
