// Fuzzes the text of an address and a port: the whole text, and its first half.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/support/address_model.h"
#include "fuzz/support/require.h"
#include "quorvane_lib/net_socket.h"

namespace {

void compare(const char* begin, const char* end, const std::string& text) {
    sockaddr_in address;
    std::memset(&address, 0x77, sizeof(address));
    const bool valid = qv::net::parse_addr(begin, end, address);
    const qv::fuzz::AddressModel model = qv::fuzz::read_address(text);
    qv::fuzz::require_equal("result", valid, model.valid);
    if (!model.blank) {
        qv::fuzz::require_equal("family", address.sin_family, AF_INET);
    }
    if (!model.valid) {
        return;
    }
    sockaddr_in expected;
    std::memset(&expected, model.blank ? 0x77 : 0, sizeof(expected));
    expected.sin_family = model.blank ? 0x7777 : AF_INET;
    expected.sin_port = htons(model.port);
    std::memcpy(&expected.sin_addr, model.bytes, sizeof(model.bytes));
    qv::fuzz::require(std::memcmp(&address, &expected, sizeof(address)) == 0,
                      "the address is the model's");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = qv::fuzz::as_text(data, size).c_str();
    compare(text.c_str(), nullptr, text);
    const std::size_t half = text.size() / 2;
    compare(text.c_str(), text.c_str() + half, text.substr(0, half));
    return 0;
}
