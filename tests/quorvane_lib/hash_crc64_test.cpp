#include "quorvane_lib/hash_crc64.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qv::hash {
namespace {

std::uint64_t crc(const std::vector<unsigned char>& bytes) {
    return CRC64::compute(bytes.data(), bytes.size());
}

std::uint64_t crc_of_text(const std::string& text) {
    return crc({text.begin(), text.end()});
}

// The same CRC computed bit by bit, without a table.
std::uint64_t crc_bit_by_bit(const std::vector<unsigned char>& bytes) {
    std::uint64_t remainder = 0;
    for (const unsigned char byte : bytes) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool in = ((byte >> bit) & 1) != 0;
            const bool out = (remainder >> 63) != 0;
            remainder <<= 1;
            if (in != out) {
                remainder ^= 0x42F0E1EBA9EA3693;
            }
        }
    }
    return remainder;
}

TEST(Crc64, PublishedCheckValueOfTheDigitsOneToNine) {
    EXPECT_EQ(crc_of_text("123456789"), 0x6C40DF5F0B497347u);
}

TEST(Crc64, TableHas256EntriesOf64Bits) {
    EXPECT_EQ(CRC64::table.size(), 256u);
    EXPECT_EQ(sizeof(CRC64::table[0]), 8u);
}

TEST(Crc64, TableEntriesAreThePublishedOnes) {
    EXPECT_EQ(CRC64::table[0], 0u);
    EXPECT_EQ(CRC64::table[1], 0x42F0E1EBA9EA3693u);
    EXPECT_EQ(CRC64::table[2], 0x85E1C3D753D46D26u);
    EXPECT_EQ(CRC64::table[128], 0xF6FAE5C07D3274CDu);
    EXPECT_EQ(CRC64::table[255], 0x9AFCE626CE85B507u);
}

TEST(Crc64, EveryTableEntryIsTheRemainderOfItsByte) {
    for (unsigned i = 0; i < 256; ++i) {
        EXPECT_EQ(CRC64::table[i], crc_bit_by_bit({static_cast<unsigned char>(i)})) << i;
    }
}

TEST(Crc64, NoBytesGiveTheInitialValueZero) {
    EXPECT_EQ(CRC64::compute(nullptr, 0), 0u);
}

TEST(Crc64, LeadingZeroBytesLeaveTheInitialValueZero) {
    EXPECT_EQ(crc(std::vector<unsigned char>(16)), 0u);
    EXPECT_EQ(crc({0x00, 0x00, 0x01}), 0x42F0E1EBA9EA3693u);
}

TEST(Crc64, KeysOfSixteenByteCallsAreFixed) {
    EXPECT_EQ(crc({0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C,
                   0x0D, 0x0E, 0x0F}),
              0xF9C42D91ABAF3B55u);
    EXPECT_EQ(crc(std::vector<unsigned char>(16, 0xFF)), 0xC597179D4E32D3FAu);
    EXPECT_EQ(crc({0xF4, 0x7A, 0xC1, 0x0B, 0x58, 0xCC, 0x43, 0x72, 0xA5, 0x67, 0x0E, 0x02, 0xB2,
                   0xC3, 0xD4, 0x79}),
              0x290000CFA1594E47u);
}

TEST(Crc64, TheSumIsLinear) {
    const std::vector<unsigned char> a{0x12, 0x34, 0x56, 0x78};
    const std::vector<unsigned char> b{0xFF, 0x00, 0xA5, 0x5A};
    EXPECT_EQ(crc(a) ^ crc(b), crc({0x12 ^ 0xFF, 0x34, 0x56 ^ 0xA5, 0x78 ^ 0x5A}));
}

}  // namespace
}  // namespace qv::hash
