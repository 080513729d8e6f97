#include "quorvane/media_packet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/golden.h"
#include "tests/support/written_packets.h"

namespace qv::media {

namespace {

using tests::Bytes;
using tests::written::CONTROL;
using tests::written::DATA;
using tests::written::START;
using tests::written::TERMINATE;
using tests::written::operator+;

class MediaPacketDecoder : public testing::Test {
  protected:
    DecodeResult decode(const Bytes& bytes) {
        // A block of exactly this size, so that a sanitizer reports a read past its end.
        const std::vector<unsigned char> block(bytes);
        return decode_packet(block.data(), block.size(), packet_);
    }

    DecodeResult decode_with(Bytes bytes, std::size_t at, unsigned char value) {
        bytes[at] = value;
        return decode(bytes);
    }

    Packet packet_;
};

TEST_F(MediaPacketDecoder, ReadsTheCommonHeader) {
    ASSERT_EQ(decode_packet(TERMINATE.data(), TERMINATE.size(), packet_), DecodeResult::OK);
    EXPECT_EQ(packet_.type, PacketType::TERMINATE);
    EXPECT_EQ(packet_.leg_word, 0);
    EXPECT_EQ(packet_.call_key, 0x0123456789ABCDEFu);
    EXPECT_EQ(packet_.call_uuid, TERMINATE.data() + 16);
    EXPECT_EQ(packet_.send_time, 0x0102030405060708);
}

TEST_F(MediaPacketDecoder, ReadsEveryFieldOfAStartPacket) {
    ASSERT_EQ(decode_packet(START.data(), START.size(), packet_), DecodeResult::OK);
    EXPECT_EQ(packet_.type, PacketType::START);
    EXPECT_TRUE(packet_.outbound());
    EXPECT_TRUE(packet_.report_node_given());
    EXPECT_TRUE(packet_.rule_id_given());
    EXPECT_EQ(packet_.created_time, 0x8000000000000001u);
    EXPECT_EQ(packet_.configured_time, 0x4000000000000002u);
    EXPECT_EQ(packet_.configured_clock, -1);
    EXPECT_EQ(packet_.rule_id, 123456789u);
    EXPECT_EQ(Bytes(packet_.report_node_address, packet_.report_node_address + 4),
              (Bytes{10, 0, 0, 7}));
    EXPECT_EQ(packet_.report_node_port, 5060);
    EXPECT_EQ(packet_.features.supported, 0xCC);
    EXPECT_EQ(packet_.features.active, 0x48);
    EXPECT_EQ(std::string(packet_.call_reference), "a@b");
    EXPECT_EQ(packet_.call_reference_length, 3u);
}

TEST_F(MediaPacketDecoder, ReadsADataPacket) {
    ASSERT_EQ(decode_packet(DATA.data(), DATA.size(), packet_), DecodeResult::OK);
    EXPECT_EQ(packet_.type, PacketType::DATA);
    EXPECT_EQ(packet_.leg(), 1);
    EXPECT_TRUE(packet_.terminator_side());
    EXPECT_EQ(packet_.sequence_number, 0xFFFFFFFEu);
    EXPECT_EQ(packet_.sample_offset, 160u);
    EXPECT_EQ(packet_.sample_count, 2);
    EXPECT_EQ(packet_.audio, DATA.data() + 50);
}

TEST_F(MediaPacketDecoder, ReadsAControlPacket) {
    ASSERT_EQ(decode(CONTROL), DecodeResult::OK);
    EXPECT_EQ(packet_.type, PacketType::CONTROL);
    EXPECT_EQ(packet_.leg_word, 0x0080);
    EXPECT_EQ(packet_.features.supported, 0x0C);
    EXPECT_EQ(packet_.features.active, 0x04);
}

TEST_F(MediaPacketDecoder, FieldsOfOtherTypesAreZero) {
    ASSERT_EQ(decode(START), DecodeResult::OK);
    ASSERT_EQ(decode(TERMINATE), DecodeResult::OK);
    EXPECT_EQ(packet_.rule_id, 0u);
    EXPECT_EQ(packet_.call_reference, nullptr);
    EXPECT_EQ(packet_.features.supported, 0);
}

TEST_F(MediaPacketDecoder, EmptyCallReferenceIsAccepted) {
    Bytes bytes(START.begin(), START.begin() + 83);
    bytes[80] = 0x01;
    bytes[82] = 0x00;
    ASSERT_EQ(decode_packet(bytes.data(), bytes.size(), packet_), DecodeResult::OK);
    EXPECT_EQ(packet_.call_reference_length, 0u);
    EXPECT_STREQ(packet_.call_reference, "");
}

TEST_F(MediaPacketDecoder, DataPacketWithoutSamplesIsAccepted) {
    Bytes bytes(DATA.begin(), DATA.begin() + 50);
    bytes[48] = 0x00;
    EXPECT_EQ(decode(bytes), DecodeResult::OK);
    EXPECT_EQ(packet_.sample_count, 0);
}

TEST_F(MediaPacketDecoder, LargestPacketsAreAccepted) {
    Bytes data(1372, 0);
    std::copy(DATA.begin(), DATA.begin() + 50, data.begin());
    data[48] = 0x95;  // 661
    data[49] = 0x02;
    EXPECT_EQ(decode(data), DecodeResult::OK);

    Bytes start(1376, 0);
    std::copy(START.begin(), START.begin() + 82, start.begin());
    start[80] = 0x0E;  // 1294
    start[81] = 0x05;
    EXPECT_EQ(decode(start), DecodeResult::OK);
    EXPECT_EQ(packet_.call_reference_length, 1293u);
}

TEST_F(MediaPacketDecoder, EveryTruncationIsRefused) {
    for (const Bytes& whole : {START, DATA, CONTROL, TERMINATE}) {
        for (std::size_t size = 0; size < whole.size(); ++size) {
            EXPECT_NE(decode(Bytes(whole.begin(), whole.begin() + static_cast<long>(size))),
                      DecodeResult::OK)
                << size;
        }
    }
}

TEST_F(MediaPacketDecoder, ATrailingByteIsAWrongLength) {
    for (const Bytes& whole : {START, DATA, CONTROL, TERMINATE}) {
        EXPECT_EQ(decode(whole + Bytes{0}), DecodeResult::WRONG_LENGTH);
    }
}

TEST_F(MediaPacketDecoder, NothingIsTooShort) {
    EXPECT_EQ(decode_packet(nullptr, 0, packet_), DecodeResult::TOO_SHORT);
    EXPECT_EQ(decode(Bytes(TERMINATE.begin(), TERMINATE.begin() + 39)), DecodeResult::TOO_SHORT);
    EXPECT_EQ(decode(Bytes(START.begin(), START.begin() + 81)), DecodeResult::TOO_SHORT);
    EXPECT_EQ(decode(Bytes(DATA.begin(), DATA.begin() + 49)), DecodeResult::TOO_SHORT);
    EXPECT_EQ(decode(Bytes(CONTROL.begin(), CONTROL.begin() + 41)), DecodeResult::TOO_SHORT);
}

TEST_F(MediaPacketDecoder, MoreThanTheLargestPacketIsTooLong) {
    EXPECT_EQ(decode(START + Bytes(1377 - START.size(), 0)), DecodeResult::TOO_LONG);
}

TEST_F(MediaPacketDecoder, EveryByteOfTheMagicCounts) {
    for (std::size_t at = 0; at < 4; ++at) {
        EXPECT_EQ(decode_with(TERMINATE, at, 0x55), DecodeResult::BAD_MAGIC) << at;
    }
}

TEST_F(MediaPacketDecoder, OtherVersionsAreRefused) {
    EXPECT_EQ(decode_with(TERMINATE, 5, 0), DecodeResult::UNKNOWN_VERSION);
    EXPECT_EQ(decode_with(TERMINATE, 5, 2), DecodeResult::UNKNOWN_VERSION);
}

TEST_F(MediaPacketDecoder, OtherTypesAreRefused) {
    EXPECT_EQ(decode_with(TERMINATE, 4, 0x80), DecodeResult::UNKNOWN_TYPE);
    EXPECT_EQ(decode_with(TERMINATE, 4, 0x85), DecodeResult::UNKNOWN_TYPE);
    EXPECT_EQ(decode_with(TERMINATE, 4, 0x01), DecodeResult::UNKNOWN_TYPE);
}

TEST_F(MediaPacketDecoder, SampleCountAboveTheLargestIsRefused) {
    Bytes bytes(50 + 2 * 662, 0);
    std::copy(DATA.begin(), DATA.begin() + 50, bytes.begin());
    bytes[48] = 0x96;  // 662
    bytes[49] = 0x02;
    EXPECT_EQ(decode(bytes), DecodeResult::TOO_MANY_SAMPLES);
}

TEST_F(MediaPacketDecoder, SampleCountThatDiffersFromTheLengthIsRefused) {
    EXPECT_EQ(decode_with(DATA, 48, 1), DecodeResult::WRONG_LENGTH);
    EXPECT_EQ(decode_with(DATA, 48, 3), DecodeResult::WRONG_LENGTH);
}

TEST_F(MediaPacketDecoder, CallReferenceNeedsItsFinalZero) {
    EXPECT_EQ(decode_with(START, 85, 'c'), DecodeResult::UNTERMINATED_CALL_REFERENCE);
}

TEST_F(MediaPacketDecoder, CallReferenceOfLengthZeroIsRefused) {
    Bytes bytes(START.begin(), START.begin() + 82);
    bytes[80] = 0;
    EXPECT_EQ(decode(bytes), DecodeResult::NO_CALL_REFERENCE);
}

TEST_F(MediaPacketDecoder, TheGoldenCallDecodes) {
    for (const std::string& name : tests::golden_call()) {
        EXPECT_EQ(decode(tests::golden(name)), DecodeResult::OK) << name;
    }
}

TEST_F(MediaPacketDecoder, EveryGoldenMalformedDatagramIsRefused) {
    for (const std::string& name : tests::golden_malformed()) {
        EXPECT_NE(decode(tests::golden(name)), DecodeResult::OK) << name;
    }
}

TEST_F(MediaPacketDecoder, EveryResultHasItsOwnText) {
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < DECODE_RESULT_COUNT; ++i) {
        texts.emplace_back(describe(static_cast<DecodeResult>(i)));
    }
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::adjacent_find(texts.begin(), texts.end()), texts.end());
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "unknown result"), 0);
}

}  // namespace

}  // namespace qv::media
