// Writes bytes and numbers as hexadecimal digits. No state; any thread may call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qv::tools {

// Two digits for each byte, in lower case.
inline std::string hexadecimal(const unsigned char* bytes, std::size_t size) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

// 16 digits.
inline std::string hexadecimal(std::uint64_t number) {
    unsigned char bytes[sizeof number];
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(number >> 56);
        number <<= 8;
    }
    return hexadecimal(bytes, sizeof bytes);
}

}  // namespace qv::tools
