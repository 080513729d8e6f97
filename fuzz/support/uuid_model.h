// A second, simple parser for the text of a UUID.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace qv::fuzz {

// Appends up to 32 digits to `digits`, also those of an invalid text. False if the text is no
// UUID.
inline bool read_uuid(const std::string& text, std::string& digits) {
    constexpr std::uint64_t dashes = 8659200;  // One bit per position where a dash is allowed.
    for (std::size_t i = 0; i < text.size() && digits.size() < 32; ++i) {
        if (std::strchr("0123456789abcdefABCDEF", text[i]) != nullptr) {
            digits += text[i];
        } else if (text[i] != '-' || i >= 24 || (dashes >> i & 1) == 0) {
            return false;
        }
    }
    return digits.size() == 32;
}

}  // namespace qv::fuzz
