// The characters of a UTF-8 text, and how a terminal shows them. No state; any thread may call
// these functions.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qv::tools {

struct Character {
    std::size_t size;  // In bytes, at least 1.
    char32_t code;     // 0 for a byte that is not UTF-8.
};

// The text must not be empty.
Character first_character(std::string_view text);

// Neither a control character nor an invisible one, such as those that change the direction of a
// text, nor an invalid one.
bool is_printable(char32_t code);

// The columns of a printable text on a terminal. Wide characters, such as Chinese ones and emoji,
// take two. Characters without width are counted as one, so a line is never longer than its count.
std::size_t columns_of(std::string_view text);

// Returns the beginning of the text, in whole characters, that takes at most `columns` columns.
std::string truncate_to_columns(std::string_view text, std::size_t columns);

}  // namespace qv::tools
