#include "tools/number.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace qv::tools {
namespace {

TEST(NumberTest, TheWholeTextIsTheNumber) {
    EXPECT_EQ(parse_number<unsigned>("0"), 0u);
    EXPECT_EQ(parse_number<unsigned>("007"), 7u);
    EXPECT_EQ(parse_number<int>("-7"), -7);
    EXPECT_EQ(parse_number<double>("2.5"), 2.5);
    for (const char* text : {"", " 7", "7 ", "+7", "-7", "7x", "x", "0x7", "7.0"}) {
        EXPECT_EQ(parse_number<unsigned>(text), std::nullopt) << text;
    }
}

TEST(NumberTest, ANumberThatTheTypeCannotHoldIsNone) {
    EXPECT_EQ(parse_number<std::uint64_t>("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(parse_number<std::uint64_t>("18446744073709551616"), std::nullopt);
    EXPECT_EQ(parse_number<std::uint8_t>("256"), std::nullopt);
}

}  // namespace
}  // namespace qv::tools
