// Fuzzes the text of a UUID: decodes it and prints it again.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/support/require.h"
#include "fuzz/support/uuid_model.h"
#include "quorvane_lib/utils_bytes.h"
#include "quorvane_lib/utils_str.h"

namespace {

using qv::utils::bytes::decode_uuid;

constexpr unsigned char UNTOUCHED = 0xEE;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = qv::fuzz::as_text(data, size).c_str();
    unsigned char uuid[17];
    std::memset(uuid, UNTOUCHED, sizeof(uuid));
    const bool valid = decode_uuid(text.c_str(), uuid, qv::tag::direct_update_t{});

    std::string digits;
    qv::fuzz::require_equal("result", valid, qv::fuzz::read_uuid(text, digits));
    qv::fuzz::require_equal("byte behind the buffer", uuid[16], UNTOUCHED);
    for (std::size_t i = 0; i < digits.size() / 2; ++i) {
        const int byte = std::stoi(digits.substr(2 * i, 2), nullptr, 16);
        qv::fuzz::require_equal("byte", uuid[i], byte);
    }
    for (std::size_t i = (digits.size() + 1) / 2; i < 16; ++i) {
        qv::fuzz::require_equal("untouched byte", uuid[i], UNTOUCHED);
    }

    unsigned char again[16];
    const std::string printed = qv::utils::str::print_uuid(uuid);
    qv::fuzz::require_equal("printed size", printed.size(), 36u);
    qv::fuzz::require(decode_uuid(printed.c_str(), again, qv::tag::direct_update_t{}),
                      "a printed UUID can be decoded");
    qv::fuzz::require(std::memcmp(uuid, again, 16) == 0, "it is the same UUID");
    return 0;
}
