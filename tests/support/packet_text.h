// Packets as text for comparisons: two lower-case hexadecimal digits per byte, without blanks.
//
// The functions keep no state; any thread may call them.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>

#include "tests/support/golden.h"

namespace qv::tests {

inline std::string to_text(const Bytes& bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0xF];
    }
    return text;
}

// The bytes of a text with hexadecimal digits and blanks.
inline Bytes from_text(const std::string& text) {
    Bytes bytes;
    if (!append_hex_line(text, bytes)) {
        throw std::invalid_argument("not hexadecimal: " + text);
    }
    return bytes;
}

// The digits of such a text without the blanks.
inline std::string hex(const std::string& text) {
    return to_text(from_text(text));
}

// The `size` bytes at `offset`; empty if the packet is shorter.
inline std::string field(const Bytes& packet, std::size_t offset, std::size_t size) {
    if (packet.size() < offset + size) {
        return {};
    }
    const auto begin = packet.begin() + static_cast<std::ptrdiff_t>(offset);
    return to_text(Bytes(begin, begin + static_cast<std::ptrdiff_t>(size)));
}

// The packet with zeros for its send time, bytes 32 to 39.
inline std::string timeless(Bytes packet) {
    if (packet.size() >= 40) {
        std::fill(packet.begin() + 32, packet.begin() + 40, static_cast<unsigned char>(0));
    }
    return to_text(packet);
}

}  // namespace qv::tests
