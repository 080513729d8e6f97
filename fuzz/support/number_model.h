// A second, simple parser for decimal numbers as the C library reads them, for the targets that
// read numbers, ports and addresses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qv::fuzz {

constexpr std::uint64_t LARGEST = 0xFFFFFFFFFFFFFFFF;

inline bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

struct NumberModel {
    bool digits = false;          // The text begins with a number.
    bool whole = false;           // Nothing follows it.
    bool overflow = false;        // It does not fit 64 bits.
    bool minus = false;           // It has a minus sign.
    std::uint64_t magnitude = 0;  // Without the sign; the maximum if it does not fit.

    // With the wrap-around of an unsigned conversion.
    std::uint64_t value() const { return overflow || !minus ? magnitude : 0 - magnitude; }
};

inline NumberModel read_number(const std::string& text) {
    NumberModel number;
    std::size_t at = 0;
    while (at < text.size() && is_space(text[at])) {
        ++at;
    }
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        number.minus = text[at] == '-';
        ++at;
    }
    for (; at < text.size() && is_digit(text[at]); ++at) {
        const auto digit = static_cast<unsigned>(text[at] - '0');
        number.digits = true;
        number.overflow = number.overflow || number.magnitude > (LARGEST - digit) / 10;
        number.magnitude = number.overflow ? LARGEST : number.magnitude * 10 + digit;
    }
    number.whole = number.digits && at == text.size();
    return number;
}

// Reads a port; false unless the whole text is a number.
inline bool read_port(const std::string& text, std::uint16_t& port) {
    const NumberModel number = read_number(text);
    if (!number.whole || number.overflow || number.value() > 65535) {
        return false;
    }
    port = static_cast<std::uint16_t>(number.value());
    return true;
}

// Reads "a.b.c.d", four numbers up to 255 without leading zeros, into `bytes`.
inline bool read_dotted(const std::string& text, unsigned char (&bytes)[4]) {
    std::size_t at = 0;
    for (int i = 0; i < 4; ++i) {
        const std::size_t dot = i < 3 ? text.find('.', at) : text.size();
        if (dot == std::string::npos || dot == at || dot - at > 3) {
            return false;
        }
        const std::string piece = text.substr(at, dot - at);
        if (piece.find_first_not_of("0123456789") != std::string::npos ||
            (piece.size() > 1 && piece[0] == '0') || std::stoi(piece) > 255) {
            return false;
        }
        bytes[i] = static_cast<unsigned char>(std::stoi(piece));
        at = dot + 1;
    }
    return true;
}

}  // namespace qv::fuzz
