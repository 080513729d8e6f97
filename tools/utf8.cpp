#include "tools/utf8.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace qv::tools {

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

constexpr Range UNPRINTABLE[] = {
    {0x00, 0x1F},        // Control characters.
    {0x7F, 0x9F},        // Further control characters.
    {0xAD, 0xAD},        // Soft hyphen.
    {0x61C, 0x61C},      // Changes the direction, in Arabic text.
    {0x180B, 0x180F},    // Mongolian marks without width.
    {0x200B, 0x200F},    // Characters without width, direction marks.
    {0x2028, 0x202E},    // Line and paragraph separators, direction changes.
    {0x2060, 0x206F},    // Invisible operators, direction changes.
    {0xD800, 0xDFFF},    // Halves of UTF-16 characters.
    {0xFDD0, 0xFDEF},    // Not characters.
    {0xFEFF, 0xFEFF},    // Byte order mark.
    {0xFFF0, 0xFFFB},    // Invisible annotations.
    {0xE0000, 0xE0FFF},  // Invisible tags.
};

// Blocks that are only partly wide are listed whole.
constexpr Range WIDE[] = {
    {0x1100, 0x115F},    // Hangul letters.
    {0x231A, 0x23FF},    // Clocks and keys, some of them emoji.
    {0x25FD, 0x27BF},    // Symbols, some of them emoji.
    {0x2B00, 0x2BFF},    // More of them.
    {0x2E80, 0xA4CF},    // Chinese, Japanese, Yi.
    {0xA960, 0xA97F},    // More Hangul letters.
    {0xAC00, 0xD7A3},    // Hangul syllables.
    {0xF900, 0xFAFF},    // Chinese.
    {0xFE10, 0xFE6F},    // Their punctuation.
    {0xFF00, 0xFF60},    // Wide Latin letters.
    {0xFFE0, 0xFFE6},    // Wide signs.
    {0x16FE0, 0x1B2FF},  // Tangut, old Japanese.
    {0x1F000, 0x1FAFF},  // Tiles, cards, emoji.
    {0x20000, 0x3FFFD},  // Chinese.
};

template <std::size_t count>
bool is_in(const Range (&ranges)[count], char32_t code) {
    return std::any_of(std::begin(ranges), std::end(ranges), [code](const Range& range) {
        return code >= range.first && code <= range.last;
    });
}

// The size of a character that begins with this byte. 0 if none does.
std::size_t size_after(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

std::size_t columns_of(char32_t code) {
    return is_in(WIDE, code) ? 2 : 1;
}

}  // namespace

Character first_character(std::string_view text) {
    constexpr Character none = {1, 0};
    constexpr std::array<char32_t, 5> least = {0, 0, 0x80, 0x800, 0x10000};
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t size = size_after(first);
    if (size == 0 || size > text.size()) {
        return none;
    }
    char32_t code = size == 1 ? first : first & (0xFFU >> (size + 1));
    for (std::size_t i = 1; i < size; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0) != 0x80) {
            return none;
        }
        code = code << 6 | (byte & 0x3FU);
    }
    const bool half = code >= 0xD800 && code <= 0xDFFF;
    return code < least[size] || half || code > 0x10FFFF ? none : Character{size, code};
}

bool is_printable(char32_t code) {
    const bool none = (code & 0xFFFE) == 0xFFFE || code > 0x10FFFF;
    return !none && !is_in(UNPRINTABLE, code);
}

std::size_t columns_of(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        const Character next = first_character(text);
        columns += columns_of(next.code);
        text.remove_prefix(next.size);
    }
    return columns;
}

std::string truncate_to_columns(std::string_view text, std::size_t columns) {
    std::size_t size = 0;
    while (size < text.size()) {
        const Character next = first_character(text.substr(size));
        const std::size_t width = columns_of(next.code);
        if (width > columns) {
            break;
        }
        columns -= width;
        size += next.size;
    }
    return std::string(text.substr(0, size));
}

}  // namespace qv::tools
