#include "quorvane/media_packet_c.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/golden.h"
#include "tests/support/written_packets.h"

namespace qv::tests {

namespace {

using written::CONTROL;
using written::DATA;
using written::START;
using written::TERMINATE;
using written::operator+;

class MediaPacketInC : public testing::Test {
  protected:
    quorvane_result decode(const Bytes& bytes) {
        // A block of exactly this size, so that a sanitizer reports a read past its end.
        block_ = std::vector<unsigned char>(bytes);
        block_.shrink_to_fit();
        std::memset(&packet_, 0xEE, sizeof(packet_));
        return quorvane_decode(block_.data(), block_.size(), &packet_);
    }

    quorvane_result decode_with(Bytes bytes, std::size_t at, unsigned char value) {
        bytes[at] = value;
        return decode(bytes);
    }

    // The `size` bytes of the datagram at a pointer of the packet.
    Bytes bytes_at(const unsigned char* begin, std::size_t size) const {
        return Bytes(begin, begin + size);
    }

    std::vector<unsigned char> block_;
    quorvane_packet packet_;
};

TEST_F(MediaPacketInC, ATerminatePacketIsTheCommonHeader) {
    ASSERT_EQ(decode(TERMINATE), QUORVANE_OK);
    EXPECT_EQ(packet_.type, QUORVANE_TERMINATE);
    EXPECT_EQ(packet_.leg_word, 0);
    EXPECT_EQ(packet_.call_key, 0x0123456789ABCDEFu);
    EXPECT_EQ(packet_.call_uuid, block_.data() + 16);
    EXPECT_EQ(packet_.send_time, 0x0102030405060708);
}

TEST_F(MediaPacketInC, EveryFieldOfAStartPacketIsRead) {
    ASSERT_EQ(decode(START), QUORVANE_OK);
    EXPECT_EQ(packet_.type, QUORVANE_START);
    EXPECT_EQ(packet_.leg_word, 0xC001);
    EXPECT_TRUE(quorvane_outbound(&packet_));
    EXPECT_TRUE(quorvane_report_node_given(&packet_));
    EXPECT_TRUE(quorvane_rule_id_given(&packet_));
    EXPECT_EQ(packet_.created_time, 0x8000000000000001u);
    EXPECT_EQ(packet_.configured_time, 0x4000000000000002u);
    EXPECT_EQ(packet_.configured_clock, -1);
    EXPECT_EQ(packet_.rule_id, 123456789u);
    EXPECT_EQ(bytes_at(packet_.report_node_address, 4), (Bytes{10, 0, 0, 7}));
    EXPECT_EQ(packet_.report_node_port, 5060);
    EXPECT_EQ(packet_.features.supported, 0xCC);
    EXPECT_EQ(packet_.features.active, 0x48);
    EXPECT_STREQ(packet_.call_reference, "a@b");
    EXPECT_EQ(packet_.call_reference_length, 3u);
}

TEST_F(MediaPacketInC, FlagsOfAStartPacketMayBeClear) {
    Bytes bytes = START;
    bytes[6] = 0x00;
    bytes[7] = 0x00;
    ASSERT_EQ(decode(bytes), QUORVANE_OK);
    EXPECT_FALSE(quorvane_outbound(&packet_));
    EXPECT_FALSE(quorvane_report_node_given(&packet_));
    EXPECT_FALSE(quorvane_rule_id_given(&packet_));
}

TEST_F(MediaPacketInC, EveryFieldOfADataPacketIsRead) {
    ASSERT_EQ(decode(DATA), QUORVANE_OK);
    EXPECT_EQ(packet_.type, QUORVANE_DATA);
    EXPECT_EQ(packet_.leg_word, 0x8001);
    EXPECT_EQ(quorvane_leg(&packet_), 1);
    EXPECT_TRUE(quorvane_terminator_side(&packet_));
    EXPECT_EQ(packet_.sequence_number, 0xFFFFFFFEu);
    EXPECT_EQ(packet_.sample_offset, 160u);
    EXPECT_EQ(packet_.sample_count, 2);
    EXPECT_EQ(packet_.audio, block_.data() + 50);
    EXPECT_EQ(quorvane_sample(&packet_, 0), 0x1234);
    EXPECT_EQ(quorvane_sample(&packet_, 1), 32767);
}

TEST_F(MediaPacketInC, APacketWithoutSamplesOfTheOriginatorsReadLegIsRead) {
    Bytes bytes(DATA.begin(), DATA.begin() + 50);
    bytes[6] = 0x00;
    bytes[7] = 0x00;
    bytes[48] = 0x00;
    ASSERT_EQ(decode(bytes), QUORVANE_OK);
    EXPECT_EQ(quorvane_leg(&packet_), 0);
    EXPECT_FALSE(quorvane_terminator_side(&packet_));
    EXPECT_EQ(packet_.sample_count, 0);
}

TEST_F(MediaPacketInC, EveryFieldOfAControlPacketIsRead) {
    ASSERT_EQ(decode(CONTROL), QUORVANE_OK);
    EXPECT_EQ(packet_.type, QUORVANE_CONTROL);
    EXPECT_EQ(packet_.leg_word, 0x0080);
    EXPECT_EQ(packet_.features.supported, 0x0C);
    EXPECT_EQ(packet_.features.active, 0x04);
}

TEST_F(MediaPacketInC, FieldsOfOtherTypesAreZero) {
    ASSERT_EQ(decode(TERMINATE), QUORVANE_OK);
    EXPECT_EQ(packet_.created_time, 0u);
    EXPECT_EQ(packet_.configured_time, 0u);
    EXPECT_EQ(packet_.configured_clock, 0);
    EXPECT_EQ(packet_.rule_id, 0u);
    EXPECT_EQ(packet_.report_node_address, nullptr);
    EXPECT_EQ(packet_.report_node_port, 0);
    EXPECT_EQ(packet_.call_reference, nullptr);
    EXPECT_EQ(packet_.call_reference_length, 0u);
    EXPECT_EQ(packet_.features.supported, 0);
    EXPECT_EQ(packet_.features.active, 0);
    EXPECT_EQ(packet_.sequence_number, 0u);
    EXPECT_EQ(packet_.sample_offset, 0u);
    EXPECT_EQ(packet_.sample_count, 0);
    EXPECT_EQ(packet_.audio, nullptr);
}

TEST_F(MediaPacketInC, ADatagramMayBeginAtAnyAddress) {
    for (std::size_t shift = 0; shift < 8; ++shift) {
        const Bytes bytes = Bytes(shift, 0) + DATA;
        ASSERT_EQ(quorvane_decode(bytes.data() + shift, DATA.size(), &packet_), QUORVANE_OK);
        EXPECT_EQ(packet_.send_time, 0x0102030405060708);
        EXPECT_EQ(quorvane_sample(&packet_, 0), 0x1234);
    }
}

TEST_F(MediaPacketInC, SamplesAreSigned) {
    Bytes bytes = DATA;
    bytes[50] = 0xFF;
    bytes[51] = 0xFF;
    bytes[52] = 0x00;
    bytes[53] = 0x80;
    ASSERT_EQ(decode(bytes), QUORVANE_OK);
    EXPECT_EQ(quorvane_sample(&packet_, 0), -1);
    EXPECT_EQ(quorvane_sample(&packet_, 1), -32768);
}

TEST_F(MediaPacketInC, EmptyCallReferenceIsAccepted) {
    Bytes bytes(START.begin(), START.begin() + 83);
    bytes[80] = 0x01;
    bytes[82] = 0x00;
    ASSERT_EQ(decode(bytes), QUORVANE_OK);
    EXPECT_EQ(packet_.call_reference_length, 0u);
    EXPECT_STREQ(packet_.call_reference, "");
}

TEST_F(MediaPacketInC, LargestPacketsAreAccepted) {
    Bytes data(1372, 0);
    std::copy(DATA.begin(), DATA.begin() + 50, data.begin());
    data[48] = 0x95;  // 661
    data[49] = 0x02;
    EXPECT_EQ(decode(data), QUORVANE_OK);

    Bytes start(1376, 0);
    std::copy(START.begin(), START.begin() + 82, start.begin());
    start[80] = 0x0E;  // 1294
    start[81] = 0x05;
    EXPECT_EQ(decode(start), QUORVANE_OK);
    EXPECT_EQ(packet_.call_reference_length, 1293u);
}

TEST_F(MediaPacketInC, NothingIsTooShort) {
    EXPECT_EQ(quorvane_decode(nullptr, 0, &packet_), QUORVANE_TOO_SHORT);
    EXPECT_EQ(decode(Bytes(TERMINATE.begin(), TERMINATE.begin() + 39)), QUORVANE_TOO_SHORT);
    EXPECT_EQ(decode(Bytes(START.begin(), START.begin() + 81)), QUORVANE_TOO_SHORT);
    EXPECT_EQ(decode(Bytes(DATA.begin(), DATA.begin() + 49)), QUORVANE_TOO_SHORT);
    EXPECT_EQ(decode(Bytes(CONTROL.begin(), CONTROL.begin() + 41)), QUORVANE_TOO_SHORT);
}

TEST_F(MediaPacketInC, MoreThanTheLargestPacketIsTooLong) {
    EXPECT_EQ(decode(START + Bytes(1377 - START.size(), 0)), QUORVANE_TOO_LONG);
}

TEST_F(MediaPacketInC, EveryByteOfTheMagicCounts) {
    for (std::size_t at = 0; at < 4; ++at) {
        EXPECT_EQ(decode_with(TERMINATE, at, 0x55), QUORVANE_BAD_MAGIC) << at;
    }
}

TEST_F(MediaPacketInC, OtherVersionsAreRefused) {
    EXPECT_EQ(decode_with(TERMINATE, 5, 0), QUORVANE_UNKNOWN_VERSION);
    EXPECT_EQ(decode_with(TERMINATE, 5, 2), QUORVANE_UNKNOWN_VERSION);
}

TEST_F(MediaPacketInC, OtherTypesAreRefused) {
    EXPECT_EQ(decode_with(TERMINATE, 4, 0x80), QUORVANE_UNKNOWN_TYPE);
    EXPECT_EQ(decode_with(TERMINATE, 4, 0x85), QUORVANE_UNKNOWN_TYPE);
    EXPECT_EQ(decode_with(TERMINATE, 4, 0x01), QUORVANE_UNKNOWN_TYPE);
}

TEST_F(MediaPacketInC, SampleCountAboveTheLargestIsRefused) {
    Bytes bytes(50 + 2 * 662, 0);
    std::copy(DATA.begin(), DATA.begin() + 50, bytes.begin());
    bytes[48] = 0x96;  // 662
    bytes[49] = 0x02;
    EXPECT_EQ(decode(bytes), QUORVANE_TOO_MANY_SAMPLES);
}

TEST_F(MediaPacketInC, LengthThatDiffersFromTheFieldsIsRefused) {
    EXPECT_EQ(decode_with(DATA, 48, 1), QUORVANE_WRONG_LENGTH);
    EXPECT_EQ(decode_with(DATA, 48, 3), QUORVANE_WRONG_LENGTH);
    for (const Bytes& whole : {START, DATA, CONTROL, TERMINATE}) {
        EXPECT_EQ(decode(whole + Bytes{0}), QUORVANE_WRONG_LENGTH);
    }
}

TEST_F(MediaPacketInC, CallReferenceOfLengthZeroIsRefused) {
    Bytes bytes(START.begin(), START.begin() + 82);
    bytes[80] = 0;
    EXPECT_EQ(decode(bytes), QUORVANE_NO_CALL_REFERENCE);
}

TEST_F(MediaPacketInC, CallReferenceNeedsItsFinalZero) {
    EXPECT_EQ(decode_with(START, 85, 'c'), QUORVANE_UNTERMINATED_CALL_REFERENCE);
}

TEST_F(MediaPacketInC, ARefusedDatagramSetsAllFieldsToZero) {
    quorvane_packet zero;
    std::memset(&zero, 0, sizeof(zero));
    const Bytes refused[] = {Bytes(39, 0), START + Bytes{0}, CONTROL + Bytes{0},
                             TERMINATE + Bytes{0}, Bytes(DATA.begin(), DATA.begin() + 51)};
    for (const Bytes& bytes : refused) {
        ASSERT_NE(decode(bytes), QUORVANE_OK);
        EXPECT_EQ(std::memcmp(&packet_, &zero, sizeof(zero)), 0) << bytes.size();
    }
}

TEST_F(MediaPacketInC, EveryResultHasItsOwnText) {
    std::vector<std::string> texts;
    for (unsigned i = 0; i < QUORVANE_DECODE_RESULT_COUNT; ++i) {
        texts.emplace_back(quorvane_describe(static_cast<quorvane_result>(i)));
    }
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::adjacent_find(texts.begin(), texts.end()), texts.end());
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "unknown result"), 0);
}

TEST(MediaPacketFeaturesInC, UpdateChangesOnlyWhatItSupports) {
    quorvane_features features = {0xDC, 0xCC};
    quorvane_merge_features(&features, {0x30, 0xFF});
    EXPECT_EQ(features.supported, 0xFC);
    EXPECT_EQ(features.active, 0xFC);
    quorvane_merge_features(&features, {0x0C, 0x00});
    EXPECT_EQ(features.supported, 0xFC);
    EXPECT_EQ(features.active, 0xF0);
}

}  // namespace

}  // namespace qv::tests
