// Reads numbers from texts. No state; any thread may call it.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace qv::tools {

// Returns the number if the whole text is one, as std::from_chars reads it: no blanks, no plus
// sign, and no minus sign for an unsigned type. Nullopt if it is none, or out of the type's range.
template <typename Number>
std::optional<Number> parse_number(std::string_view text) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stopped == end ? std::optional(number) : std::nullopt;
}

}  // namespace qv::tools
