// Fuzzes hexadecimal text: decodes it and writes it again.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "quorvane_lib/utils_bytes.h"

namespace {

std::string lower_case(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

std::string encode(const std::vector<unsigned char>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A separate block, so that a sanitizer reports a read past its end.
    const std::vector<char> block(data, data + size);
    const std::vector<unsigned char> bytes = qv::utils::bytes::decode(block.data(), size);
    const std::string text = lower_case({block.begin(), block.end()});
    const bool valid =
        size % 2 == 0 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
    qv::fuzz::require_equal("text written again", encode(bytes), valid ? text : "");
    return 0;
}
