/*
 * The media transfer protocol for receivers in C: decodes one datagram into a plain struct.
 *
 * This is C99, and also valid as C11 and C++17. It needs only the standard headers below, and there
 * is no library to link. The functions allocate nothing and keep no state; any thread may call
 * them. Constants and fields have the names of media_packet.h, the header for C++; here, constants
 * begin with QUORVANE_. docs/protocol.md describes the fields for people.
 *
 * You own the datagram and the packet. The pointers of a decoded packet lead into the datagram, so
 * keep the datagram unchanged for as long as you use them.
 *
 * On the wire, integers are little-endian, except the report node's address and port, which are in
 * network byte order. Decoded integers have the byte order of your machine. Bytes behind a pointer
 * are as they are on the wire. The datagram may begin at any address, aligned or not.
 *
 * Times are in microseconds. Wall times count from 1970-01-01 00:00:00 UTC. Steady times come from
 * the monotonic clock of the sender's machine; compare them only with each other.
 */
#ifndef QUORVANE_MEDIA_PACKET_C_H
#define QUORVANE_MEDIA_PACKET_C_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* The features of a call: one bit per feature and side, the same bits in both bytes. */
struct quorvane_features {
    uint8_t supported; /* Which sides a feature applies to. */
    uint8_t active;    /* Where it runs; has meaning only where supported. */
};

/*
 * Masks of the features, each for both sides, and masks of the sides, each for all features. A mask
 * of both kinds gives one bit: QUORVANE_FEATURE_RECORD & QUORVANE_ORIGINATOR_BITS.
 */
#define QUORVANE_FEATURE_AUDIO_ACTIVITY 0x0Cu
#define QUORVANE_FEATURE_SAMPLE_DETECTION 0x30u
#define QUORVANE_FEATURE_RECORD 0xC0u
#define QUORVANE_ORIGINATOR_BITS 0x54u
#define QUORVANE_TERMINATOR_BITS 0xA8u

#define QUORVANE_PACKET_MAGIC 0x00FF00FFu /* FF 00 FF 00 on the wire. */
#define QUORVANE_PROTOCOL_VERSION 1u

enum quorvane_packet_type {
    QUORVANE_START = 0x81,
    QUORVANE_TERMINATE = 0x82,
    QUORVANE_DATA = 0x83,
    QUORVANE_CONTROL = 0x84
};

/* The leg word of a start packet: the call's flags. */
#define QUORVANE_FLAG_OUTBOUND 0x0001u    /* The channel's direction. */
#define QUORVANE_FLAG_REPORT_NODE 0x4000u /* The report node is given. */
#define QUORVANE_FLAG_RULE_ID 0x8000u     /* The rule id is given. */

/* The leg word of a data packet. */
#define QUORVANE_LEG_TERMINATOR_SIDE 0x0001u
#define QUORVANE_LEG_WRITE 0x8000u

/* The leg word of a control packet, and of a terminate packet. */
#define QUORVANE_CONTROL_LEG_WORD 0x0080u
#define QUORVANE_TERMINATE_LEG_WORD 0u

#define QUORVANE_LEG_COUNT 2u
#define QUORVANE_READ_LEG 0u  /* Audio that the host reads from the channel. */
#define QUORVANE_WRITE_LEG 1u /* Audio that the host writes to the channel. */

/* Sizes in bytes. */
#define QUORVANE_UUID_SIZE 16u
#define QUORVANE_MAX_PACKET_SIZE 1376u
#define QUORVANE_MAX_CALL_REFERENCE_SIZE 1294u /* With the zero byte at the end. */
#define QUORVANE_MAX_AUDIO_SIZE 1322u          /* 661 samples. */

/* Offsets and sizes in bytes. Every packet: */
#define QUORVANE_MAGIC_OFFSET 0u      /* u32 */
#define QUORVANE_TYPE_OFFSET 4u       /* u8 */
#define QUORVANE_VERSION_OFFSET 5u    /* u8 */
#define QUORVANE_LEG_WORD_OFFSET 6u   /* u16 */
#define QUORVANE_CALL_KEY_OFFSET 8u   /* u64 */
#define QUORVANE_CALL_UUID_OFFSET 16u /* 16 bytes */
#define QUORVANE_SEND_TIME_OFFSET 32u /* i64, steady clock */
#define QUORVANE_COMMON_SIZE 40u

/* Start packet: */
#define QUORVANE_CREATED_TIME_OFFSET 40u          /* u64, wall clock */
#define QUORVANE_CONFIGURED_TIME_OFFSET 48u       /* u64, wall clock */
#define QUORVANE_CONFIGURED_CLOCK_OFFSET 56u      /* i64, steady clock */
#define QUORVANE_RULE_ID_OFFSET 64u               /* u64 */
#define QUORVANE_REPORT_NODE_ADDRESS_OFFSET 72u   /* 4 bytes, network order */
#define QUORVANE_REPORT_NODE_PORT_OFFSET 76u      /* 2 bytes, network order */
#define QUORVANE_START_FEATURES_OFFSET 78u        /* supported, active */
#define QUORVANE_CALL_REFERENCE_LENGTH_OFFSET 80u /* u16, counts the final zero */
#define QUORVANE_CALL_REFERENCE_OFFSET 82u        /* text and a zero byte */

/* Data packet: */
#define QUORVANE_SEQUENCE_NUMBER_OFFSET 40u /* u32, per leg, the first is 1 */
#define QUORVANE_SAMPLE_OFFSET_OFFSET 44u   /* u32, per leg, samples sent before */
#define QUORVANE_SAMPLE_COUNT_OFFSET 48u    /* u16 */
#define QUORVANE_AUDIO_OFFSET 50u           /* 16-bit samples */

/* Control packet: */
#define QUORVANE_CONTROL_FEATURES_OFFSET 40u /* supported, active */
#define QUORVANE_CONTROL_SIZE 42u

#define QUORVANE_TERMINATE_SIZE QUORVANE_COMMON_SIZE

/* A decoded datagram. The fields of other packet types are zero. */
struct quorvane_packet {
    enum quorvane_packet_type type;
    uint16_t leg_word; /* Call flags of a start packet. */
    uint64_t call_key;
    const unsigned char* call_uuid; /* QUORVANE_UUID_SIZE bytes. */
    int64_t send_time;              /* Steady clock, microseconds. */

    /* Start packet. */
    uint64_t created_time;                    /* Wall clock, microseconds; 0 if unknown. */
    uint64_t configured_time;                 /* Wall clock, microseconds. */
    int64_t configured_clock;                 /* Steady clock, microseconds. */
    uint64_t rule_id;                         /* Has meaning only if quorvane_rule_id_given(). */
    const unsigned char* report_node_address; /* 4 bytes, as they are written: a.b.c.d. */
    uint16_t report_node_port;                /* In the byte order of your machine. */
    const char* call_reference;               /* Ends in a zero byte. May hold any other bytes. */
    size_t call_reference_length; /* Bytes without the zero byte at the end, 0 to 1293. */

    /* Start packet: the features in effect. Control packet: the update. */
    struct quorvane_features features;

    /* Data packet. */
    uint32_t sequence_number;   /* Per leg; the first is 1. */
    uint32_t sample_offset;     /* Per leg; samples sent before this packet. */
    uint16_t sample_count;      /* 0 to 661. */
    const unsigned char* audio; /* 2 * sample_count bytes; quorvane_sample() reads them. */
};

/* What quorvane_decode() found. */
enum quorvane_result {
    QUORVANE_OK,
    QUORVANE_TOO_SHORT,
    QUORVANE_TOO_LONG,
    QUORVANE_BAD_MAGIC,
    QUORVANE_UNKNOWN_VERSION,
    QUORVANE_UNKNOWN_TYPE,
    QUORVANE_WRONG_LENGTH,
    QUORVANE_TOO_MANY_SAMPLES,
    QUORVANE_NO_CALL_REFERENCE,
    QUORVANE_UNTERMINATED_CALL_REFERENCE
};
#define QUORVANE_DECODE_RESULT_COUNT 10u

/*
 * The reason in words, without the values of the datagram; "unknown result" for any other number.
 * The text is constant.
 */
static inline const char* quorvane_describe(enum quorvane_result result) {
    switch (result) {
        case QUORVANE_OK:
            return "ok";
        case QUORVANE_TOO_SHORT:
            return "too short for its packet type";
        case QUORVANE_TOO_LONG:
            return "longer than any packet";
        case QUORVANE_BAD_MAGIC:
            return "bad magic";
        case QUORVANE_UNKNOWN_VERSION:
            return "unknown protocol version";
        case QUORVANE_UNKNOWN_TYPE:
            return "unknown packet type";
        case QUORVANE_WRONG_LENGTH:
            return "length differs from what its fields say";
        case QUORVANE_TOO_MANY_SAMPLES:
            return "more samples than a packet can hold";
        case QUORVANE_NO_CALL_REFERENCE:
            return "call reference of length zero";
        case QUORVANE_UNTERMINATED_CALL_REFERENCE:
            return "call reference without its final zero";
    }
    return "unknown result";
}

/* These read 2, 4 or 8 bytes at `in`, least significant byte first. */
static inline uint16_t quorvane_get_u16(const unsigned char* in) {
    return (uint16_t)(in[0] | in[1] << 8);
}

static inline uint32_t quorvane_get_u32(const unsigned char* in) {
    return quorvane_get_u16(in) | (uint32_t)quorvane_get_u16(in + 2) << 16;
}

static inline uint64_t quorvane_get_u64(const unsigned char* in) {
    return quorvane_get_u32(in) | (uint64_t)quorvane_get_u32(in + 4) << 32;
}

/* The same bytes as a signed number, two's complement. */
static inline int64_t quorvane_get_i64(const unsigned char* in) {
    const uint64_t bits = quorvane_get_u64(in);
    int64_t value = 0;
    memcpy(&value, &bits, sizeof(value));
    return value;
}

/* Reads the 2 bytes at `in`, supported first. */
static inline struct quorvane_features quorvane_get_features(const unsigned char* in) {
    struct quorvane_features features;
    features.supported = in[0];
    features.active = in[1];
    return features;
}

/*
 * Merges `update`, the features of a control packet, into `features`: features that `update`
 * supports become supported and take its active bits. The others do not change.
 */
static inline void quorvane_merge_features(struct quorvane_features* features,
                                           struct quorvane_features update) {
    const unsigned mask = update.supported;
    features->supported = (uint8_t)(features->supported | mask);
    features->active = (uint8_t)((features->active & ~mask) | (update.active & mask));
}

/* For a start packet: whether the switch called the party on the tapped channel. */
static inline bool quorvane_outbound(const struct quorvane_packet* packet) {
    return (packet->leg_word & QUORVANE_FLAG_OUTBOUND) != 0;
}

/* For a start packet: whether the report node's address and port are given. */
static inline bool quorvane_report_node_given(const struct quorvane_packet* packet) {
    return (packet->leg_word & QUORVANE_FLAG_REPORT_NODE) != 0;
}

/* For a start packet: whether the rule id is given. */
static inline bool quorvane_rule_id_given(const struct quorvane_packet* packet) {
    return (packet->leg_word & QUORVANE_FLAG_RULE_ID) != 0;
}

/* For a data packet: QUORVANE_READ_LEG or QUORVANE_WRITE_LEG. */
static inline uint8_t quorvane_leg(const struct quorvane_packet* packet) {
    return (packet->leg_word & QUORVANE_LEG_WRITE) != 0 ? QUORVANE_WRITE_LEG : QUORVANE_READ_LEG;
}

/* For a data packet: whether the audio is the terminator's, not the originator's. */
static inline bool quorvane_terminator_side(const struct quorvane_packet* packet) {
    return (packet->leg_word & QUORVANE_LEG_TERMINATOR_SIDE) != 0;
}

/* For a data packet: one sample of linear PCM; `index` is below `packet->sample_count`. */
static inline int16_t quorvane_sample(const struct quorvane_packet* packet, size_t index) {
    const uint16_t bits = quorvane_get_u16(packet->audio + 2 * index);
    int16_t value = 0;
    memcpy(&value, &bits, sizeof(value));
    return value;
}

/* The fields of each packet type, for quorvane_decode(). They fill in nothing if they refuse. */
static inline enum quorvane_result quorvane_decode_start(const unsigned char* data, size_t size,
                                                         struct quorvane_packet* packet) {
    if (size < QUORVANE_CALL_REFERENCE_OFFSET) {
        return QUORVANE_TOO_SHORT;
    }
    const size_t reference_size = quorvane_get_u16(data + QUORVANE_CALL_REFERENCE_LENGTH_OFFSET);
    if (size != QUORVANE_CALL_REFERENCE_OFFSET + reference_size) {
        return QUORVANE_WRONG_LENGTH;
    }
    if (reference_size == 0) {
        return QUORVANE_NO_CALL_REFERENCE;
    }
    if (data[size - 1] != 0) {
        return QUORVANE_UNTERMINATED_CALL_REFERENCE;
    }
    packet->created_time = quorvane_get_u64(data + QUORVANE_CREATED_TIME_OFFSET);
    packet->configured_time = quorvane_get_u64(data + QUORVANE_CONFIGURED_TIME_OFFSET);
    packet->configured_clock = quorvane_get_i64(data + QUORVANE_CONFIGURED_CLOCK_OFFSET);
    packet->rule_id = quorvane_get_u64(data + QUORVANE_RULE_ID_OFFSET);
    packet->report_node_address = data + QUORVANE_REPORT_NODE_ADDRESS_OFFSET;
    packet->report_node_port = (uint16_t)(data[QUORVANE_REPORT_NODE_PORT_OFFSET] << 8 |
                                          data[QUORVANE_REPORT_NODE_PORT_OFFSET + 1]);
    packet->features = quorvane_get_features(data + QUORVANE_START_FEATURES_OFFSET);
    packet->call_reference = (const char*)(data + QUORVANE_CALL_REFERENCE_OFFSET);
    packet->call_reference_length = reference_size - 1;
    return QUORVANE_OK;
}

static inline enum quorvane_result quorvane_decode_data(const unsigned char* data, size_t size,
                                                        struct quorvane_packet* packet) {
    if (size < QUORVANE_AUDIO_OFFSET) {
        return QUORVANE_TOO_SHORT;
    }
    const uint16_t sample_count = quorvane_get_u16(data + QUORVANE_SAMPLE_COUNT_OFFSET);
    if (sample_count > QUORVANE_MAX_AUDIO_SIZE / 2) {
        return QUORVANE_TOO_MANY_SAMPLES;
    }
    if (size != QUORVANE_AUDIO_OFFSET + (size_t)sample_count * 2) {
        return QUORVANE_WRONG_LENGTH;
    }
    packet->sequence_number = quorvane_get_u32(data + QUORVANE_SEQUENCE_NUMBER_OFFSET);
    packet->sample_offset = quorvane_get_u32(data + QUORVANE_SAMPLE_OFFSET_OFFSET);
    packet->sample_count = sample_count;
    packet->audio = data + QUORVANE_AUDIO_OFFSET;
    return QUORVANE_OK;
}

static inline enum quorvane_result quorvane_decode_control(const unsigned char* data, size_t size,
                                                           struct quorvane_packet* packet) {
    if (size != QUORVANE_CONTROL_SIZE) {
        return size < QUORVANE_CONTROL_SIZE ? QUORVANE_TOO_SHORT : QUORVANE_WRONG_LENGTH;
    }
    packet->features = quorvane_get_features(data + QUORVANE_CONTROL_FEATURES_OFFSET);
    return QUORVANE_OK;
}

/*
 * Decodes the datagram of `size` bytes at `data`, which may be null if `size` is 0. Returns
 * QUORVANE_OK and fills in `packet`; or returns the reason why it is no packet, and sets all fields
 * to zero. Unknown bits of the leg word and of the features are accepted, so that later senders can
 * use them.
 */
static inline enum quorvane_result quorvane_decode(const void* data, size_t size,
                                                   struct quorvane_packet* packet) {
    const unsigned char* const bytes = (const unsigned char*)data;
    memset(packet, 0, sizeof(*packet));
    if (size < QUORVANE_COMMON_SIZE) {
        return QUORVANE_TOO_SHORT;
    }
    if (size > QUORVANE_MAX_PACKET_SIZE) {
        return QUORVANE_TOO_LONG;
    }
    if (quorvane_get_u32(bytes + QUORVANE_MAGIC_OFFSET) != QUORVANE_PACKET_MAGIC) {
        return QUORVANE_BAD_MAGIC;
    }
    if (bytes[QUORVANE_VERSION_OFFSET] != QUORVANE_PROTOCOL_VERSION) {
        return QUORVANE_UNKNOWN_VERSION;
    }
    enum quorvane_packet_type type = QUORVANE_TERMINATE;
    enum quorvane_result result = QUORVANE_OK;
    switch (bytes[QUORVANE_TYPE_OFFSET]) {
        case QUORVANE_START:
            type = QUORVANE_START;
            result = quorvane_decode_start(bytes, size, packet);
            break;
        case QUORVANE_DATA:
            type = QUORVANE_DATA;
            result = quorvane_decode_data(bytes, size, packet);
            break;
        case QUORVANE_CONTROL:
            type = QUORVANE_CONTROL;
            result = quorvane_decode_control(bytes, size, packet);
            break;
        case QUORVANE_TERMINATE:
            result = size == QUORVANE_TERMINATE_SIZE ? QUORVANE_OK : QUORVANE_WRONG_LENGTH;
            break;
        default:
            return QUORVANE_UNKNOWN_TYPE;
    }
    if (result == QUORVANE_OK) {
        packet->type = type;
        packet->leg_word = quorvane_get_u16(bytes + QUORVANE_LEG_WORD_OFFSET);
        packet->call_key = quorvane_get_u64(bytes + QUORVANE_CALL_KEY_OFFSET);
        packet->call_uuid = bytes + QUORVANE_CALL_UUID_OFFSET;
        packet->send_time = quorvane_get_i64(bytes + QUORVANE_SEND_TIME_OFFSET);
    }
    return result;
}

#endif
