#include "tools/utf8.h"

#include <gtest/gtest.h>

namespace qv::tools {

namespace {

// The size and the code, or 0 if it is no character.
std::pair<std::size_t, char32_t> first(const std::string& text) {
    const Character character = first_character(text);
    return {character.size, character.code};
}
using Found = std::pair<std::size_t, char32_t>;

TEST(CharactersTest, CharactersHaveOneToFourBytes) {
    EXPECT_EQ(first("ab"), Found(1, U'a'));
    EXPECT_EQ(first("\xC2\x80"), Found(2, 0x80));
    EXPECT_EQ(first("\xDF\xBF"), Found(2, 0x7FF));
    EXPECT_EQ(first("\xE0\xA0\x80"), Found(3, 0x800));
    EXPECT_EQ(first("\xE6\x97\xA5x"), Found(3, 0x65E5));
    EXPECT_EQ(first("\xF0\x90\x80\x80"), Found(4, 0x10000));
    EXPECT_EQ(first("\xF4\x8F\xBF\xBF"), Found(4, 0x10FFFF));
}

TEST(CharactersTest, WhatIsNoUtf8IsSingleBytes) {
    for (const char* text :
         {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC3", "\xC3x", "\xE0\x9F\xBF", "\xE6\x97",
          "\xE6\x97x", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF0\x9F\x98",
          "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE", "\xFF"}) {
        EXPECT_EQ(first(text), Found(1, 0)) << text;
    }
}

TEST(CharactersTest, ControlsAndInvisibleCharactersAreNotPrintable) {
    for (const unsigned code :
         {0x00U,   0x1FU,   0x7FU,   0x80U,    0x9FU,    0xADU,     0x61CU,
          0x200BU, 0x200FU, 0x2028U, 0x202AU,  0x202EU,  0x2066U,   0x2069U,
          0xFEFFU, 0xFFFEU, 0xFFFFU, 0x1FFFEU, 0xE0041U, 0x10FFFFU, 0x110000U}) {
        EXPECT_FALSE(is_printable(code)) << std::hex << code;
    }
    for (const unsigned code :
         {0x20U, 0x7EU, 0xA0U, 0xE9U, 0x416U, 0x5D0U, 0x65E5U, 0xFFFDU, 0x1F600U}) {
        EXPECT_TRUE(is_printable(code)) << std::hex << code;
    }
}

TEST(CharactersTest, WideCharactersTakeTwoColumns) {
    EXPECT_EQ(columns_of(""), 0u);
    EXPECT_EQ(columns_of("a\u00e9\u0416\u2588\u00b7"), 5u);
    EXPECT_EQ(columns_of("\u65e5\ud55c\uff21\U0001F600"), 8u);
}

TEST(CharactersTest, TextIsCutBetweenCharacters) {
    const std::string text = "a\u65e5\u672c";
    EXPECT_EQ(truncate_to_columns(text, 0), "");
    EXPECT_EQ(truncate_to_columns(text, 1), "a");
    EXPECT_EQ(truncate_to_columns(text, 2), "a");
    EXPECT_EQ(truncate_to_columns(text, 3), "a\u65e5");
    EXPECT_EQ(truncate_to_columns(text, 4), "a\u65e5");
    EXPECT_EQ(truncate_to_columns(text, 5), text);
    EXPECT_EQ(truncate_to_columns(text, 99), text);
}

}  // namespace

}  // namespace qv::tools
