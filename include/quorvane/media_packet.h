// The media transfer protocol: constants and offsets of its four datagrams.
//
// This one header is shared by the sender, by receivers and by tests. It needs
// nothing of the host and keeps no state; any thread may use it.
//
// On the wire, integers are little-endian on every machine, except the report node's
// address and port, which stay in network byte order. Times are in microseconds.
// docs/protocol.md describes the fields for people.
#pragma once

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv::media {

// The features of a call: one bit per feature and side, the same bits in both
// bytes. On the wire `supported` comes first.
struct features16_t {
    std::uint8_t supported;  // Which sides a feature applies to.
    std::uint8_t active;     // Where it runs; has meaning only where supported.
};
static_assert(sizeof(features16_t) == 2 && alignof(features16_t) == 1);

// Masks of the features for both sides. Within a mask the lower bit is the
// originator's, the higher one the terminator's.
enum class Features : std::uint8_t {
    AudioActivity = 0x0C,
    SampleDetection = 0x30,
};
constexpr std::uint8_t FEATURE_RECORD = 0xC0;
constexpr std::uint8_t ORIGINATOR_BITS = 0x54;
constexpr std::uint8_t TERMINATOR_BITS = 0xA8;

constexpr std::uint8_t feature_mask(Features feature) {
    return static_cast<std::uint8_t>(feature);
}
constexpr std::uint8_t originator_bit(Features feature) {
    return feature_mask(feature) & ORIGINATOR_BITS;
}
constexpr std::uint8_t terminator_bit(Features feature) {
    return feature_mask(feature) & TERMINATOR_BITS;
}

// Merges `update` into `features`: features that `update` supports become supported and take its
// active bits. The others do not change.
constexpr void merge_features(features16_t& features, features16_t update) {
    const auto mask = static_cast<unsigned>(update.supported);
    const unsigned kept = features.active & ~mask;
    features.supported = static_cast<std::uint8_t>(features.supported | mask);
    features.active = static_cast<std::uint8_t>(kept | (update.active & mask));
}

constexpr std::uint32_t PACKET_MAGIC = 0x00FF00FF;  // FF 00 FF 00 on the wire.
constexpr std::uint8_t PROTOCOL_VERSION = 1;

enum class PacketType : std::uint8_t {
    START = 0x81,
    TERMINATE = 0x82,
    DATA = 0x83,
    CONTROL = 0x84,
};

// The call's flag word: the leg word of a start packet.
constexpr std::uint16_t FLAG_OUTBOUND = 0x0001;     // The channel's direction.
constexpr std::uint16_t FLAG_REPORT_NODE = 0x4000;  // The report node is given.
constexpr std::uint16_t FLAG_RULE_ID = 0x8000;      // The rule id is given.

// The leg word of a data packet.
constexpr std::uint16_t LEG_TERMINATOR_SIDE = 0x0001;
constexpr std::uint16_t LEG_WRITE = 0x8000;

// The leg word of a control packet, and of a terminate packet.
constexpr std::uint16_t CONTROL_LEG_WORD = 0x0080;
constexpr std::uint16_t TERMINATE_LEG_WORD = 0;

constexpr std::size_t UUID_SIZE = 16;
constexpr std::size_t LEG_COUNT = 2;
constexpr std::uint8_t READ_LEG = 0;   // Audio that the host reads from the channel.
constexpr std::uint8_t WRITE_LEG = 1;  // Audio that the host writes to the channel.

constexpr std::size_t MAX_PACKET_SIZE = 1376;

// Every packet.
constexpr std::size_t MAGIC_OFFSET = 0;       // u32
constexpr std::size_t TYPE_OFFSET = 4;        // u8
constexpr std::size_t VERSION_OFFSET = 5;     // u8
constexpr std::size_t LEG_WORD_OFFSET = 6;    // u16
constexpr std::size_t CALL_KEY_OFFSET = 8;    // u64
constexpr std::size_t CALL_UUID_OFFSET = 16;  // 16 bytes
constexpr std::size_t SEND_TIME_OFFSET = 32;  // i64, steady clock
constexpr std::size_t COMMON_SIZE = 40;

// Start packet.
constexpr std::size_t CREATED_TIME_OFFSET = 40;           // u64, wall clock
constexpr std::size_t CONFIGURED_TIME_OFFSET = 48;        // u64, wall clock
constexpr std::size_t CONFIGURED_CLOCK_OFFSET = 56;       // i64, steady clock
constexpr std::size_t RULE_ID_OFFSET = 64;                // u64
constexpr std::size_t REPORT_NODE_ADDRESS_OFFSET = 72;    // 4 bytes, network order
constexpr std::size_t REPORT_NODE_PORT_OFFSET = 76;       // 2 bytes, network order
constexpr std::size_t START_FEATURES_OFFSET = 78;         // features16_t
constexpr std::size_t CALL_REFERENCE_LENGTH_OFFSET = 80;  // u16, counts the final zero
constexpr std::size_t CALL_REFERENCE_OFFSET = 82;         // text and a zero byte
constexpr std::size_t MAX_CALL_REFERENCE_SIZE = MAX_PACKET_SIZE - CALL_REFERENCE_OFFSET;

// Data packet.
constexpr std::size_t SEQUENCE_NUMBER_OFFSET = 40;  // u32, per leg, the first is 1
constexpr std::size_t SAMPLE_OFFSET_OFFSET = 44;    // u32, per leg, samples sent before
constexpr std::size_t SAMPLE_COUNT_OFFSET = 48;     // u16
constexpr std::size_t AUDIO_OFFSET = 50;            // 16-bit samples
constexpr std::size_t MAX_AUDIO_SIZE = 1322;        // bytes, 661 samples

// Control packet.
constexpr std::size_t CONTROL_FEATURES_OFFSET = 40;  // features16_t
constexpr std::size_t CONTROL_SIZE = 42;

constexpr std::size_t TERMINATE_SIZE = COMMON_SIZE;

// Writes `value` at `out`, least significant byte first; `out` has room for it.
inline void put_u16(unsigned char* out, std::uint16_t value) {
    const std::uint16_t wire = htole16(value);
    std::memcpy(out, &wire, sizeof(wire));
}

inline void put_u32(unsigned char* out, std::uint32_t value) {
    const std::uint32_t wire = htole32(value);
    std::memcpy(out, &wire, sizeof(wire));
}

inline void put_u64(unsigned char* out, std::uint64_t value) {
    const std::uint64_t wire = htole64(value);
    std::memcpy(out, &wire, sizeof(wire));
}

inline void put_features(unsigned char* out, features16_t features) {
    out[0] = features.supported;
    out[1] = features.active;
}

// Writes what every packet begins with, except the send time. `out` has room for COMMON_SIZE bytes;
// `uuid` points to UUID_SIZE bytes.
inline void put_common_fields(unsigned char* out, PacketType type, std::uint16_t leg_word,
                              std::uint64_t call_key, const unsigned char* uuid) {
    put_u32(out + MAGIC_OFFSET, PACKET_MAGIC);
    out[TYPE_OFFSET] = static_cast<unsigned char>(type);
    out[VERSION_OFFSET] = PROTOCOL_VERSION;
    put_u16(out + LEG_WORD_OFFSET, leg_word);
    put_u64(out + CALL_KEY_OFFSET, call_key);
    std::memcpy(out + CALL_UUID_OFFSET, uuid, UUID_SIZE);
}

// Reads what the put functions write.
inline std::uint16_t get_u16(const unsigned char* in) {
    std::uint16_t wire = 0;
    std::memcpy(&wire, in, sizeof(wire));
    return le16toh(wire);
}

inline std::uint32_t get_u32(const unsigned char* in) {
    std::uint32_t wire = 0;
    std::memcpy(&wire, in, sizeof(wire));
    return le32toh(wire);
}

inline std::uint64_t get_u64(const unsigned char* in) {
    std::uint64_t wire = 0;
    std::memcpy(&wire, in, sizeof(wire));
    return le64toh(wire);
}

inline features16_t get_features(const unsigned char* in) {
    return {in[0], in[1]};
}

// A decoded datagram. The pointers lead into the datagram, which must outlive the
// packet; the fields of other packet types hold zero.
struct Packet {
    PacketType type = PacketType::TERMINATE;
    std::uint16_t leg_word = 0;  // Call flags of a start packet.
    std::uint64_t call_key = 0;
    const unsigned char* call_uuid = nullptr;  // UUID_SIZE bytes.
    std::int64_t send_time = 0;                // Steady clock.

    // Start packet.
    std::uint64_t created_time = 0;     // Wall clock.
    std::uint64_t configured_time = 0;  // Wall clock.
    std::int64_t configured_clock = 0;  // Steady clock.
    std::uint64_t rule_id = 0;
    const unsigned char* report_node_address = nullptr;  // 4 bytes, as they are written: a.b.c.d.
    std::uint16_t report_node_port = 0;                  // Host byte order.
    const char* call_reference = nullptr;                // Ends in a zero byte.
    std::size_t call_reference_length = 0;               // Without the zero byte at the end.

    // Start packet: the features in effect. Control packet: the update.
    features16_t features{};

    // Data packet.
    std::uint32_t sequence_number = 0;
    std::uint32_t sample_offset = 0;
    std::uint16_t sample_count = 0;
    const unsigned char* audio = nullptr;  // sample_count little-endian 16-bit samples.

    bool outbound() const { return (leg_word & FLAG_OUTBOUND) != 0; }
    bool report_node_given() const { return (leg_word & FLAG_REPORT_NODE) != 0; }
    bool rule_id_given() const { return (leg_word & FLAG_RULE_ID) != 0; }
    std::uint8_t leg() const { return (leg_word & LEG_WRITE) != 0 ? WRITE_LEG : READ_LEG; }
    bool terminator_side() const { return (leg_word & LEG_TERMINATOR_SIDE) != 0; }
};

// What decode_packet() found.
enum class DecodeResult : std::uint8_t {
    OK,
    TOO_SHORT,
    TOO_LONG,
    BAD_MAGIC,
    UNKNOWN_VERSION,
    UNKNOWN_TYPE,
    WRONG_LENGTH,
    TOO_MANY_SAMPLES,
    NO_CALL_REFERENCE,
    UNTERMINATED_CALL_REFERENCE,
};
constexpr std::size_t DECODE_RESULT_COUNT = 10;

// The reason in words, without the values of the datagram.
constexpr const char* describe(DecodeResult result) {
    switch (result) {
        case DecodeResult::OK:
            return "ok";
        case DecodeResult::TOO_SHORT:
            return "too short for its packet type";
        case DecodeResult::TOO_LONG:
            return "longer than any packet";
        case DecodeResult::BAD_MAGIC:
            return "bad magic";
        case DecodeResult::UNKNOWN_VERSION:
            return "unknown protocol version";
        case DecodeResult::UNKNOWN_TYPE:
            return "unknown packet type";
        case DecodeResult::WRONG_LENGTH:
            return "length differs from what its fields say";
        case DecodeResult::TOO_MANY_SAMPLES:
            return "more samples than a packet can hold";
        case DecodeResult::NO_CALL_REFERENCE:
            return "call reference of length zero";
        case DecodeResult::UNTERMINATED_CALL_REFERENCE:
            return "call reference without its final zero";
    }
    return "unknown result";
}

// The fields of each packet type; the common ones have been decoded.
inline DecodeResult decode_start(const unsigned char* data, std::size_t size, Packet& packet) {
    if (size < CALL_REFERENCE_OFFSET) {
        return DecodeResult::TOO_SHORT;
    }
    const std::size_t reference_size = get_u16(data + CALL_REFERENCE_LENGTH_OFFSET);
    if (size != CALL_REFERENCE_OFFSET + reference_size) {
        return DecodeResult::WRONG_LENGTH;
    }
    if (reference_size == 0) {
        return DecodeResult::NO_CALL_REFERENCE;
    }
    if (data[size - 1] != 0) {
        return DecodeResult::UNTERMINATED_CALL_REFERENCE;
    }
    packet.created_time = get_u64(data + CREATED_TIME_OFFSET);
    packet.configured_time = get_u64(data + CONFIGURED_TIME_OFFSET);
    packet.configured_clock = static_cast<std::int64_t>(get_u64(data + CONFIGURED_CLOCK_OFFSET));
    packet.rule_id = get_u64(data + RULE_ID_OFFSET);
    packet.report_node_address = data + REPORT_NODE_ADDRESS_OFFSET;
    packet.report_node_port = static_cast<std::uint16_t>(data[REPORT_NODE_PORT_OFFSET] << 8 |
                                                         data[REPORT_NODE_PORT_OFFSET + 1]);
    packet.features = get_features(data + START_FEATURES_OFFSET);
    packet.call_reference = reinterpret_cast<const char*>(data + CALL_REFERENCE_OFFSET);
    packet.call_reference_length = reference_size - 1;
    return DecodeResult::OK;
}

inline DecodeResult decode_data(const unsigned char* data, std::size_t size, Packet& packet) {
    if (size < AUDIO_OFFSET) {
        return DecodeResult::TOO_SHORT;
    }
    const std::uint16_t sample_count = get_u16(data + SAMPLE_COUNT_OFFSET);
    if (sample_count > MAX_AUDIO_SIZE / 2) {
        return DecodeResult::TOO_MANY_SAMPLES;
    }
    if (size != AUDIO_OFFSET + std::size_t{sample_count} * 2) {
        return DecodeResult::WRONG_LENGTH;
    }
    packet.sequence_number = get_u32(data + SEQUENCE_NUMBER_OFFSET);
    packet.sample_offset = get_u32(data + SAMPLE_OFFSET_OFFSET);
    packet.sample_count = sample_count;
    packet.audio = data + AUDIO_OFFSET;
    return DecodeResult::OK;
}

inline DecodeResult decode_control(const unsigned char* data, std::size_t size, Packet& packet) {
    if (size != CONTROL_SIZE) {
        return size < CONTROL_SIZE ? DecodeResult::TOO_SHORT : DecodeResult::WRONG_LENGTH;
    }
    packet.features = get_features(data + CONTROL_FEATURES_OFFSET);
    return DecodeResult::OK;
}

// Decodes the datagram of `size` bytes at `data`, for receivers; allocates nothing.
// `packet` has a meaning only when the result is OK. Unknown bits of the leg word and
// of the features are accepted, so that later senders can use them.
inline DecodeResult decode_packet(const unsigned char* data, std::size_t size, Packet& packet) {
    if (size < COMMON_SIZE) {
        return DecodeResult::TOO_SHORT;
    }
    if (size > MAX_PACKET_SIZE) {
        return DecodeResult::TOO_LONG;
    }
    if (get_u32(data + MAGIC_OFFSET) != PACKET_MAGIC) {
        return DecodeResult::BAD_MAGIC;
    }
    if (data[VERSION_OFFSET] != PROTOCOL_VERSION) {
        return DecodeResult::UNKNOWN_VERSION;
    }
    packet = Packet{};
    packet.type = static_cast<PacketType>(data[TYPE_OFFSET]);
    packet.leg_word = get_u16(data + LEG_WORD_OFFSET);
    packet.call_key = get_u64(data + CALL_KEY_OFFSET);
    packet.call_uuid = data + CALL_UUID_OFFSET;
    packet.send_time = static_cast<std::int64_t>(get_u64(data + SEND_TIME_OFFSET));
    switch (packet.type) {
        case PacketType::START:
            return decode_start(data, size, packet);
        case PacketType::DATA:
            return decode_data(data, size, packet);
        case PacketType::CONTROL:
            return decode_control(data, size, packet);
        case PacketType::TERMINATE:
            return size == TERMINATE_SIZE ? DecodeResult::OK : DecodeResult::WRONG_LENGTH;
    }
    return DecodeResult::UNKNOWN_TYPE;
}

}  // namespace qv::media
