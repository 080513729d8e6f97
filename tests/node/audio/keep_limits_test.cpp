#include "node/audio/keep_limits.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

TEST(KeepLimitsTest, DaysAndBytesAreLimitsOfTheirOwn) {
    KeepLimits limits;
    EXPECT_FALSE(limits.any());
    EXPECT_EQ(read_keep_limit("30d", limits), "");
    EXPECT_EQ(read_keep_limit("200G", limits), "");
    EXPECT_EQ(limits.age, std::chrono::hours(720));
    EXPECT_EQ(limits.bytes, 214'748'364'800u);
}

TEST(KeepLimitsTest, UnitsArePowersOf1024) {
    KeepLimits limits;
    read_keep_limit("1K", limits);
    EXPECT_EQ(limits.bytes, 1024u);
    read_keep_limit("3M", limits);
    EXPECT_EQ(limits.bytes, 3'145'728u);
    read_keep_limit("1000000T", limits);
    EXPECT_EQ(limits.bytes, 1'099'511'627'776'000'000u);
}

TEST(KeepLimitsTest, OtherTextsAreRefusedByName) {
    KeepLimits limits;
    for (const char* text : {"", "30", "d", "-1d", "1.5d", "30 d", "30days", "5g", "1x", "+3G",
                             "12345678901234567890G"}) {
        const std::string complaint = read_keep_limit(text, limits);
        EXPECT_EQ(complaint, "'" + std::string(text) +
                                 "' is neither a number of days, such as 30d, nor of bytes, such "
                                 "as 200G");
    }
    EXPECT_EQ(read_keep_limit("0d", limits), "'0d' would keep nothing");
    EXPECT_EQ(read_keep_limit("0G", limits), "'0G' would keep nothing");
    EXPECT_EQ(read_keep_limit("36501d", limits), "'36501d' is more than 36500 days");
    EXPECT_EQ(read_keep_limit("1000001T", limits), "'1000001T' is more than 1000000T");
    EXPECT_FALSE(limits.any());
}

}  // namespace

}  // namespace qv::node
