#include "node/report/text.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

TEST(NodeTextTest, ForeignTextCannotSteerATerminal) {
    EXPECT_EQ(quoted_text("a\x1b[2Jb\"\\\n"), R"("a\x1b[2Jb\"\\\x0a")");
    EXPECT_EQ(quoted_text("\xff\x7f"), R"("\xff\x7f")");
}

TEST(NodeTextTest, LongForeignTextIsCut) {
    EXPECT_EQ(quoted_text(std::string(300, 'x')), '"' + std::string(200, 'x') + "...\"");
}

TEST(NodeTextTest, PrintableForeignTextIsShownAsItIs) {
    for (const char* text : {"\u65e5\u672c", "J\u00fcrgen", "\u0416", "\U0001F600"}) {
        EXPECT_EQ(quoted_text(text), '"' + std::string(text) + '"');
    }
}

TEST(NodeTextTest, WhatIsNoUtf8OrInvisibleIsShownAsBytes) {
    EXPECT_EQ(quoted_text("\xE6\x97"), R"("\xe6\x97")");
    EXPECT_EQ(quoted_text("\xED\xA0\x80"), R"("\xed\xa0\x80")");
    EXPECT_EQ(quoted_text("\u0085"), R"("\xc2\x85")");
    EXPECT_EQ(quoted_text("a\u202eb\u2069"), R"("a\xe2\x80\xaeb\xe2\x81\xa9")");
    EXPECT_EQ(quoted_text("\uffff"), R"("\xef\xbf\xbf")");
}

TEST(NodeTextTest, LongForeignTextIsCutBetweenCharacters) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        text += "\u65e5";
    }
    EXPECT_EQ(quoted_text(text, 8), '"' + text + '"');
    EXPECT_EQ(quoted_text(text, 7), "\"\u65e5\u65e5\u65e5...\"");
    EXPECT_EQ(quoted_text("\xff\xff", 7), "\"\\xff...\"");
}

TEST(NodeTextTest, FeaturesAreWords) {
    EXPECT_EQ(features_text({0, 0}), "no features");
    EXPECT_EQ(features_text({0x0C, 0x0C}), "audio activity on both");
    EXPECT_EQ(features_text({0x30, 0x00}), "detection off both");
    EXPECT_EQ(features_text({0xC0, 0x80}), "recording off originator, on terminator");
    EXPECT_EQ(features_text({0x04, 0x04}), "audio activity on originator");
    EXPECT_EQ(features_text({0x20 | 0x40, 0x40}),
              "detection off terminator; recording on originator");
}

TEST(NodeTextTest, LevelIsRoundedAndDigitalSilenceIsNamed) {
    EXPECT_EQ(level_text(-33.4), "-33 dB");
    EXPECT_EQ(level_text(-96.0), "silent");
    EXPECT_EQ(decibel_text(-96.0), "-96 dB");
}

TEST(NodeTextTest, SamplesOfAnUnknownRateLastAsLongAsThoseOf8000Hz) {
    EXPECT_EQ(seconds_of(4000, 16000), 0.25);
    EXPECT_EQ(seconds_of(4000, 0), 0.5);
}

TEST(NodeTextTest, TimesAreRoundedDownAndHaveTheirZone) {
    setenv("TZ", "XST3:30", 1);
    tzset();
    const Micros time{1'767'225'550'987'654};  // 2025-12-31, 23:59:10.987654 UTC.
    EXPECT_EQ(local_date(time), "2025-12-31");
    EXPECT_EQ(local_time(time), "20:29:10");
    EXPECT_EQ(local_time_tenths(time), "20:29:10.9");
    EXPECT_EQ(zone_text(time), "UTC-03:30");
    EXPECT_EQ(local_time_tenths(Micros{-100'000}), "20:29:59.9");
    unsetenv("TZ");
    tzset();
}

}  // namespace

}  // namespace qv::node
