// How the text of a UUID is read, told plainly.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace qv::fuzz {

// Collects up to 32 digits into `digits`, also of a text that is refused. False if the
// text is no UUID.
inline bool read_uuid(const std::string& text, std::string& digits) {
    constexpr std::uint64_t dashes = 8659200;  // A bit for each place where one may stand.
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
