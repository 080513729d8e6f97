#include "tools/text.h"

#include <gtest/gtest.h>

namespace qv::tools {
namespace {

TEST(TextTest, LargeNumbersAreGrouped) {
    EXPECT_EQ(grouped(0), "0");
    EXPECT_EQ(grouped(999), "999");
    EXPECT_EQ(grouped(1000), "1,000");
    EXPECT_EQ(grouped(1234567), "1,234,567");
}

TEST(TextTest, OneThingIsNoPlural) {
    EXPECT_EQ(counted(1, "call"), "1 call");
    EXPECT_EQ(counted(0, "call"), "0 calls");
    EXPECT_EQ(counted(2000, "call"), "2,000 calls");
}

TEST(TextTest, DurationsHaveTheUnitThatFits) {
    EXPECT_EQ(duration_text(0), "0.0 s");
    EXPECT_EQ(duration_text(59.9), "59.9 s");
    EXPECT_EQ(duration_text(59.96), "1 min 00 s");
    EXPECT_EQ(duration_text(200), "3 min 20 s");
    EXPECT_EQ(duration_text(3599.6), "1 h 00 min");
    EXPECT_EQ(duration_text(7500), "2 h 05 min");
}

}  // namespace
}  // namespace qv::tools
