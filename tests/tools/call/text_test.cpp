#include "tools/call/text.h"

#include <gtest/gtest.h>

namespace qv::tools::call {
namespace {

using std::chrono::nanoseconds;

TEST(CallTextTest, ANumberIsTheWholeText) {
    EXPECT_EQ(parse_number("1.5"), 1.5);
    EXPECT_EQ(parse_number("-2"), -2);
    for (const char* text : {"", " 1", "1 ", "1x", "x", "nan", "inf", "1e999"}) {
        EXPECT_FALSE(parse_number(text)) << text;
    }
}

TEST(CallTextTest, PlaceholdersAreFilledWhereverTheyStand) {
    EXPECT_EQ(fill_placeholders("{uuid}/{n}-{uuid}", "ab", 7), "ab/7-ab");
    EXPECT_EQ(fill_placeholders("{other} {", "ab", 7), "{other} {");
}

TEST(CallTextTest, APlaceholderInAValueIsNotFilledAgain) {
    EXPECT_EQ(fill_placeholders("{uuid}", "{uuid}x", 7), "{uuid}x");
}

TEST(CallTextTest, ShortTimesHaveTheUnitThatFits) {
    EXPECT_EQ(short_time(nanoseconds(850)), "850 ns");
    EXPECT_EQ(short_time(nanoseconds(12'340)), "12.3 us");
    EXPECT_EQ(short_time(nanoseconds(4'560'000)), "4.56 ms");
    EXPECT_EQ(short_time(nanoseconds(1'230'000'000)), "1.23 s");
}

TEST(CallTextTest, SizesHaveTheUnitThatFits) {
    EXPECT_EQ(size_text(850), "850 bytes");
    EXPECT_EQ(size_text(12.25 * 1024), "12.2 KiB");
    EXPECT_EQ(size_text(4.5 * 1024 * 1024), "4.5 MiB");
}

TEST(CallTextTest, TextsAreJoinedWithSomethingBetweenThem) {
    EXPECT_EQ(joined({}, "; "), "");
    EXPECT_EQ(joined({"a"}, "; "), "a");
    EXPECT_EQ(joined({"a", "b", "c"}, "; "), "a; b; c");
}

}  // namespace
}  // namespace qv::tools::call
