// Holds quorvane/media_packet_c.h against quorvane/media_packet.h: the same constants, and the same
// outcome for every datagram.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/support/both_decoders.h"
#include "quorvane/media_packet.h"
#include "quorvane/media_packet_c.h"
#include "tests/support/golden.h"

namespace qv::tests {

namespace {

template <typename Enumerator>
constexpr bool is(unsigned value, Enumerator expected) {
    return value == static_cast<unsigned>(expected);
}

static_assert(is(QUORVANE_FEATURE_AUDIO_ACTIVITY, media::Features::AudioActivity));
static_assert(is(QUORVANE_FEATURE_SAMPLE_DETECTION, media::Features::SampleDetection));
static_assert(QUORVANE_FEATURE_RECORD == media::FEATURE_RECORD);
static_assert(QUORVANE_ORIGINATOR_BITS == media::ORIGINATOR_BITS);
static_assert(QUORVANE_TERMINATOR_BITS == media::TERMINATOR_BITS);
static_assert(QUORVANE_PACKET_MAGIC == media::PACKET_MAGIC);
static_assert(QUORVANE_PROTOCOL_VERSION == media::PROTOCOL_VERSION);
static_assert(QUORVANE_FLAG_OUTBOUND == media::FLAG_OUTBOUND);
static_assert(QUORVANE_FLAG_REPORT_NODE == media::FLAG_REPORT_NODE);
static_assert(QUORVANE_FLAG_RULE_ID == media::FLAG_RULE_ID);
static_assert(QUORVANE_LEG_TERMINATOR_SIDE == media::LEG_TERMINATOR_SIDE);
static_assert(QUORVANE_LEG_WRITE == media::LEG_WRITE);
static_assert(QUORVANE_CONTROL_LEG_WORD == media::CONTROL_LEG_WORD);
static_assert(QUORVANE_TERMINATE_LEG_WORD == media::TERMINATE_LEG_WORD);
static_assert(QUORVANE_UUID_SIZE == media::UUID_SIZE);
static_assert(QUORVANE_LEG_COUNT == media::LEG_COUNT);
static_assert(QUORVANE_READ_LEG == media::READ_LEG);
static_assert(QUORVANE_WRITE_LEG == media::WRITE_LEG);
static_assert(QUORVANE_MAX_PACKET_SIZE == media::MAX_PACKET_SIZE);
static_assert(QUORVANE_MAGIC_OFFSET == media::MAGIC_OFFSET);
static_assert(QUORVANE_TYPE_OFFSET == media::TYPE_OFFSET);
static_assert(QUORVANE_VERSION_OFFSET == media::VERSION_OFFSET);
static_assert(QUORVANE_LEG_WORD_OFFSET == media::LEG_WORD_OFFSET);
static_assert(QUORVANE_CALL_KEY_OFFSET == media::CALL_KEY_OFFSET);
static_assert(QUORVANE_CALL_UUID_OFFSET == media::CALL_UUID_OFFSET);
static_assert(QUORVANE_SEND_TIME_OFFSET == media::SEND_TIME_OFFSET);
static_assert(QUORVANE_COMMON_SIZE == media::COMMON_SIZE);
static_assert(QUORVANE_CREATED_TIME_OFFSET == media::CREATED_TIME_OFFSET);
static_assert(QUORVANE_CONFIGURED_TIME_OFFSET == media::CONFIGURED_TIME_OFFSET);
static_assert(QUORVANE_CONFIGURED_CLOCK_OFFSET == media::CONFIGURED_CLOCK_OFFSET);
static_assert(QUORVANE_RULE_ID_OFFSET == media::RULE_ID_OFFSET);
static_assert(QUORVANE_REPORT_NODE_ADDRESS_OFFSET == media::REPORT_NODE_ADDRESS_OFFSET);
static_assert(QUORVANE_REPORT_NODE_PORT_OFFSET == media::REPORT_NODE_PORT_OFFSET);
static_assert(QUORVANE_START_FEATURES_OFFSET == media::START_FEATURES_OFFSET);
static_assert(QUORVANE_CALL_REFERENCE_LENGTH_OFFSET == media::CALL_REFERENCE_LENGTH_OFFSET);
static_assert(QUORVANE_CALL_REFERENCE_OFFSET == media::CALL_REFERENCE_OFFSET);
static_assert(QUORVANE_MAX_CALL_REFERENCE_SIZE == media::MAX_CALL_REFERENCE_SIZE);
static_assert(QUORVANE_SEQUENCE_NUMBER_OFFSET == media::SEQUENCE_NUMBER_OFFSET);
static_assert(QUORVANE_SAMPLE_OFFSET_OFFSET == media::SAMPLE_OFFSET_OFFSET);
static_assert(QUORVANE_SAMPLE_COUNT_OFFSET == media::SAMPLE_COUNT_OFFSET);
static_assert(QUORVANE_AUDIO_OFFSET == media::AUDIO_OFFSET);
static_assert(QUORVANE_MAX_AUDIO_SIZE == media::MAX_AUDIO_SIZE);
static_assert(QUORVANE_CONTROL_FEATURES_OFFSET == media::CONTROL_FEATURES_OFFSET);
static_assert(QUORVANE_CONTROL_SIZE == media::CONTROL_SIZE);
static_assert(QUORVANE_TERMINATE_SIZE == media::TERMINATE_SIZE);
static_assert(QUORVANE_DECODE_RESULT_COUNT == media::DECODE_RESULT_COUNT);

static_assert(is(QUORVANE_START, media::PacketType::START));
static_assert(is(QUORVANE_TERMINATE, media::PacketType::TERMINATE));
static_assert(is(QUORVANE_DATA, media::PacketType::DATA));
static_assert(is(QUORVANE_CONTROL, media::PacketType::CONTROL));

static_assert(is(QUORVANE_OK, media::DecodeResult::OK));
static_assert(is(QUORVANE_TOO_SHORT, media::DecodeResult::TOO_SHORT));
static_assert(is(QUORVANE_TOO_LONG, media::DecodeResult::TOO_LONG));
static_assert(is(QUORVANE_BAD_MAGIC, media::DecodeResult::BAD_MAGIC));
static_assert(is(QUORVANE_UNKNOWN_VERSION, media::DecodeResult::UNKNOWN_VERSION));
static_assert(is(QUORVANE_UNKNOWN_TYPE, media::DecodeResult::UNKNOWN_TYPE));
static_assert(is(QUORVANE_WRONG_LENGTH, media::DecodeResult::WRONG_LENGTH));
static_assert(is(QUORVANE_TOO_MANY_SAMPLES, media::DecodeResult::TOO_MANY_SAMPLES));
static_assert(is(QUORVANE_NO_CALL_REFERENCE, media::DecodeResult::NO_CALL_REFERENCE));
static_assert(is(QUORVANE_UNTERMINATED_CALL_REFERENCE,
                 media::DecodeResult::UNTERMINATED_CALL_REFERENCE));

static_assert(sizeof(quorvane_features) == sizeof(media::features16_t));

// What the decoders find differently in the bytes. They are decoded in a block of exactly their
// size, so that a sanitizer reports a read past its end.
std::string difference(const Bytes& bytes, std::size_t size) {
    const Bytes block(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    return fuzz::decoders_differ_in(block.data(), block.size());
}

std::vector<std::string> golden_names() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(QUORVANE_TEST_DATA_DIR)) {
        if (entry.path().extension() == ".hex") {
            names.push_back(entry.path().stem());
        }
    }
    return names;
}

TEST(MediaPacketDecoders, AgreeOnEveryGoldenDatagramAtEveryLength) {
    ASSERT_GT(golden_names().size(), 30u);
    for (const std::string& name : golden_names()) {
        Bytes bytes = golden(name);
        const std::size_t whole = bytes.size();
        bytes.resize(whole + 2);
        for (std::size_t size = 0; size <= bytes.size(); ++size) {
            ASSERT_EQ(difference(bytes, size), "") << name << ", " << size << " bytes of " << whole;
        }
    }
}

TEST(MediaPacketDecoders, AgreeOnEveryGoldenDatagramWithAnyByteChanged) {
    for (const std::string& name : golden_names()) {
        Bytes bytes = golden(name);
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            const unsigned char kept = bytes[at];
            const int values[] = {0x00, 0x01, 0x7F,     0x80,     0x81,       0x84,
                                  0x85, 0xFF, kept - 1, kept + 1, kept ^ 0x80};
            for (const int value : values) {
                bytes[at] = static_cast<unsigned char>(value);
                ASSERT_EQ(difference(bytes, bytes.size()), "")
                    << name << ", byte " << at << " is " << value;
            }
            bytes[at] = kept;
        }
    }
}

TEST(MediaPacketDecoders, MergeAllFeaturesAlike) {
    for (unsigned held = 0; held < 256; ++held) {
        for (unsigned update = 0; update < 256; ++update) {
            const auto low = static_cast<std::uint8_t>(held);
            const auto high = static_cast<std::uint8_t>(update);
            const auto other = static_cast<std::uint8_t>(held ^ (update << 1));
            quorvane_features c = {other, low};
            quorvane_merge_features(&c, {high, other});
            media::features16_t cpp = {other, low};
            media::merge_features(cpp, {high, other});
            ASSERT_EQ(c.supported, cpp.supported) << held << " " << update;
            ASSERT_EQ(c.active, cpp.active) << held << " " << update;
        }
    }
}

TEST(MediaPacketDecoders, DescribeEveryResultAlike) {
    for (unsigned i = 0; i <= QUORVANE_DECODE_RESULT_COUNT; ++i) {
        EXPECT_STREQ(quorvane_describe(static_cast<quorvane_result>(i)),
                     media::describe(static_cast<media::DecodeResult>(i)));
    }
}

}  // namespace

}  // namespace qv::tests
