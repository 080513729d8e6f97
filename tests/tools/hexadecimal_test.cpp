#include "tools/hexadecimal.h"

#include <gtest/gtest.h>

namespace qv::tools {
namespace {

TEST(HexadecimalTest, EachByteHasTwoDigits) {
    const unsigned char bytes[] = {0x00, 0x0a, 0xff, 0x7f};
    EXPECT_EQ(hexadecimal(bytes, sizeof bytes), "000aff7f");
    EXPECT_EQ(hexadecimal(bytes, 0), "");
}

TEST(HexadecimalTest, NumberHasAllItsDigits) {
    EXPECT_EQ(hexadecimal(std::uint64_t{0x1a}), "000000000000001a");
    EXPECT_EQ(hexadecimal(0xfedcba9876543210), "fedcba9876543210");
}

}  // namespace
}  // namespace qv::tools
