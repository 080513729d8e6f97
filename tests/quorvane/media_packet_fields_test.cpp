#include "quorvane/media_packet.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/packet_text.h"

namespace qv::media {

namespace {

using tests::hex;

template <typename Value>
std::string put(void (*put_value)(unsigned char*, Value), std::size_t size, Value value) {
    tests::Bytes bytes(size, 0xEE);
    put_value(bytes.data(), value);
    return tests::to_text(bytes);
}

std::string merged(features16_t features, features16_t update) {
    merge_features(features, update);
    return tests::to_text({features.supported, features.active});
}

TEST(MediaPacket, IntegersGoOutLeastSignificantByteFirst) {
    EXPECT_EQ(put<std::uint16_t>(put_u16, 2, 0x1234), hex("34 12"));
    EXPECT_EQ(put<std::uint32_t>(put_u32, 4, 0x12345678), hex("78 56 34 12"));
    EXPECT_EQ(put<std::uint64_t>(put_u64, 8, 0x123456789ABCDEF0), hex("f0 de bc 9a 78 56 34 12"));
}

TEST(MediaPacket, LargestIntegersFillTheirBytes) {
    EXPECT_EQ(put<std::uint16_t>(put_u16, 2, 65535), hex("ff ff"));
    EXPECT_EQ(put<std::uint32_t>(put_u32, 4, 4294967295U), hex("ff ff ff ff"));
    EXPECT_EQ(put<std::uint64_t>(put_u64, 8, 18446744073709551615U),
              hex("ff ff ff ff ff ff ff ff"));
}

TEST(MediaPacket, NoByteBesideTheValueIsTouched) {
    EXPECT_EQ(put<std::uint16_t>(put_u16, 3, 1), hex("01 00 ee"));
    EXPECT_EQ(put<std::uint32_t>(put_u32, 5, 1), hex("01 00 00 00 ee"));
    EXPECT_EQ(put<std::uint64_t>(put_u64, 9, 1), hex("01 00 00 00 00 00 00 00 ee"));
}

TEST(MediaPacket, SupportedGoesOutBeforeActive) {
    EXPECT_EQ(put<features16_t>(put_features, 2, {0xDC, 0xCC}), hex("dc cc"));
}

TEST(MediaPacket, CommonFieldsAreWrittenUpToTheSendTime) {
    const tests::Bytes uuid = tests::from_text("a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab ac ad ae af");
    tests::Bytes bytes(COMMON_SIZE, 0xEE);
    put_common_fields(bytes.data(), PacketType::DATA, 0x1234, 0x0102030405060708, uuid.data());
    EXPECT_EQ(tests::to_text(bytes),
              hex("ff 00 ff 00 83 01 34 12 08 07 06 05 04 03 02 01 "
                  "a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab ac ad ae af ee ee ee ee ee ee ee ee"));
}

TEST(MediaPacket, IntegersAreReadLeastSignificantByteFirst) {
    const tests::Bytes bytes = tests::from_text("f0 de bc 9a 78 56 34 92");
    EXPECT_EQ(get_u16(bytes.data()), 0xDEF0U);
    EXPECT_EQ(get_u32(bytes.data()), 0x9ABCDEF0U);
    EXPECT_EQ(get_u64(bytes.data()), 0x923456789ABCDEF0U);
}

TEST(MediaPacket, FeaturesAreReadSupportedFirst) {
    const tests::Bytes bytes = tests::from_text("dc cc");
    EXPECT_EQ(get_features(bytes.data()).supported, 0xDC);
    EXPECT_EQ(get_features(bytes.data()).active, 0xCC);
}

TEST(MediaPacket, LowerBitOfAFeatureIsTheOriginators) {
    EXPECT_EQ(originator_bit(Features::AudioActivity), 0x04);
    EXPECT_EQ(terminator_bit(Features::AudioActivity), 0x08);
    EXPECT_EQ(feature_mask(Features::AudioActivity), 0x0C);
    EXPECT_EQ(originator_bit(Features::SampleDetection), 0x10);
    EXPECT_EQ(terminator_bit(Features::SampleDetection), 0x20);
    EXPECT_EQ(feature_mask(Features::SampleDetection), 0x30);
    EXPECT_EQ(FEATURE_RECORD, 0xC0);
}

TEST(MediaPacket, MergeAddsWhatTheUpdateSupports) {
    EXPECT_EQ(merged({0x00, 0x00}, {0x0C, 0x04}), hex("0c 04"));
    EXPECT_EQ(merged({0xC0, 0xC0}, {0x0C, 0x0C}), hex("cc cc"));
}

TEST(MediaPacket, MergeSwitchesOffWhatTheUpdateSupportsButDoesNotStart) {
    EXPECT_EQ(merged({0xCC, 0xCC}, {0x0C, 0x00}), hex("cc c0"));
}

TEST(MediaPacket, MergeIgnoresActiveBitsThatTheUpdateDoesNotSupport) {
    EXPECT_EQ(merged({0x00, 0x00}, {0x04, 0x0C}), hex("04 04"));
}

TEST(MediaPacket, RoomForTheCallReferenceIs1294Bytes) {
    EXPECT_EQ(MAX_PACKET_SIZE, 1376U);
    EXPECT_EQ(MAX_CALL_REFERENCE_SIZE, 1294U);
}

TEST(MediaPacket, LargestDataPacketIs1372Bytes) {
    EXPECT_EQ(AUDIO_OFFSET + MAX_AUDIO_SIZE, 1372U);
}

}  // namespace

}  // namespace qv::media
