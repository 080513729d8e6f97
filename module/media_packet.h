// The media transfer protocol: constants and offsets of its four datagrams.
//
// This one header is shared by the sender, by receivers and by tests. It needs
// nothing of the host and keeps no state; any thread may use it.
//
// Integers are little-endian on the wire whatever the machine, except the report
// node's address and port, which stay in network byte order. Times are in
// microseconds. docs/protocol.md describes the fields for people.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv::media {

// The features of a call: one bit per feature and leg, the same bits in both
// bytes. On the wire `supported` comes first.
struct features16_t {
    std::uint8_t supported;  // Which legs a feature applies to.
    std::uint8_t active;     // Where it runs; has meaning only where supported.
};
static_assert(sizeof(features16_t) == 2 && alignof(features16_t) == 1);

// Masks of the features for both legs. Within a mask the lower bit is the
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

// Takes `update` over into `features`: the features that `update` supports
// become supported and get its active bits; the others stay as they are.
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
    out[0] = static_cast<unsigned char>(value);
    out[1] = static_cast<unsigned char>(value >> 8);
}

inline void put_u32(unsigned char* out, std::uint32_t value) {
    put_u16(out, static_cast<std::uint16_t>(value));
    put_u16(out + 2, static_cast<std::uint16_t>(value >> 16));
}

inline void put_u64(unsigned char* out, std::uint64_t value) {
    put_u32(out, static_cast<std::uint32_t>(value));
    put_u32(out + 4, static_cast<std::uint32_t>(value >> 32));
}

inline void put_features(unsigned char* out, features16_t features) {
    out[0] = features.supported;
    out[1] = features.active;
}

// Reads what the put functions write.
inline std::uint16_t get_u16(const unsigned char* in) {
    return static_cast<std::uint16_t>(in[0] | in[1] << 8);
}

inline std::uint32_t get_u32(const unsigned char* in) {
    return get_u16(in) | static_cast<std::uint32_t>(get_u16(in + 2)) << 16;
}

inline std::uint64_t get_u64(const unsigned char* in) {
    return get_u32(in) | static_cast<std::uint64_t>(get_u32(in + 4)) << 32;
}

inline features16_t get_features(const unsigned char* in) {
    return {in[0], in[1]};
}

}  // namespace qv::media
