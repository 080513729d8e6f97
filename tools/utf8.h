// The characters of a UTF-8 text, and how a terminal shows them. No state; any thread may call.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qv::tools {

struct Character {
    std::size_t size;  // In bytes, at least 1.
    char32_t code;     // 0 for a byte that is no UTF-8.
};

// The text must not be empty.
Character first_character(std::string_view text);

// Neither a control character nor an invisible one, such as those that turn the direction of a
// text, nor none at all.
bool is_printable(char32_t code);

// Columns of a printable text on a terminal. Wide characters, as those of Chinese and emoji, take
// two; those that take none are counted, too, so that no line becomes longer than it is counted.
std::size_t columns_of(std::string_view text);

// The beginning of the text, whole characters, that takes at most `columns` columns.
std::string truncate_to_columns(std::string_view text, std::size_t columns);

}  // namespace qv::tools
