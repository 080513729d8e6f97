#include "quorvane_lib/utils_bytes.h"

#include <array>

namespace qv::utils::bytes {

namespace {

constexpr signed char NO_DIGIT = -1;

constexpr signed char digit_value(unsigned c) {
    if (c >= '0' && c <= '9') {
        return static_cast<signed char>(c - '0');
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<signed char>(c - 'a' + 10);
    }
    if (c >= 'A' && c <= 'F') {
        return static_cast<signed char>(c - 'A' + 10);
    }
    return NO_DIGIT;
}

constexpr std::array<signed char, 256> make_digit_values() {
    std::array<signed char, 256> values{};
    for (unsigned c = 0; c < values.size(); ++c) {
        values[c] = digit_value(c);
    }
    return values;
}

// A table instead of comparisons: a processor cannot predict whether a digit of a UUID is a
// letter, and a wrong prediction costs more than the rest of the decoding.
constexpr std::array<signed char, 256> DIGIT_VALUES = make_digit_values();

int hex_value(char c) {
    return DIGIT_VALUES[static_cast<unsigned char>(c)];
}

// Stores a pair's first digit (`second` false) or adds its second one.
void put_digit(unsigned char& byte, int digit, bool second) {
    byte = static_cast<unsigned char>(second ? byte + digit : digit * 16);
}

bool is_dash_place(std::size_t index) {
    return index == 8 || index == 13 || index == 18 || index == 23;
}

}  // namespace

std::vector<unsigned char> decode(const char* text, unsigned long length) {
    if (length % 2 != 0) {
        return {};
    }
    std::vector<unsigned char> bytes(length / 2);
    for (unsigned long i = 0; i < length; ++i) {
        const int digit = hex_value(text[i]);
        if (digit == NO_DIGIT) {
            return {};
        }
        put_digit(bytes[i / 2], digit, i % 2 != 0);
    }
    return bytes;
}

bool decode_uuid(const char* text, unsigned char* uuid, qv::tag::direct_update_t /*tag*/) {
    std::size_t digits = 0;
    for (std::size_t i = 0; text[i] != '\0' && digits < 2 * UUID_SIZE; ++i) {
        if (text[i] == '-' && is_dash_place(i)) {
            continue;
        }
        const int digit = hex_value(text[i]);
        if (digit == NO_DIGIT) {
            return false;
        }
        put_digit(uuid[digits / 2], digit, digits % 2 != 0);
        ++digits;
    }
    return digits == 2 * UUID_SIZE;
}

}  // namespace qv::utils::bytes
