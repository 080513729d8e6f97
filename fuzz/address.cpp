// The text of an address and a port, as a whole and up to its middle.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/support/number_model.h"
#include "fuzz/support/require.h"
#include "quorvane_lib/net_socket.h"

namespace {

struct Model {
    bool valid = false;
    bool blank = false;
    unsigned char bytes[4] = {127, 0, 0, 1};
    std::uint16_t port = 0;
};

Model model_of(std::string text) {
    Model model;
    while (!text.empty() && qv::fuzz::is_space(text[0])) {
        text.erase(0, 1);
    }
    model.blank = text.empty();
    const std::size_t colon = text.rfind(':');
    const std::string host = colon == std::string::npos ? text : text.substr(0, colon);
    const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
    unsigned char bytes[4];
    if (qv::fuzz::read_dotted(host, bytes)) {
        std::memcpy(model.bytes, bytes, sizeof(bytes));
        model.valid = port.empty() || qv::fuzz::read_port(port, model.port);
    } else if (colon == std::string::npos) {
        model.valid = model.blank || qv::fuzz::read_port(text, model.port);
    } else {
        model.valid = host.empty() && (port.empty() || qv::fuzz::read_port(port, model.port));
    }
    return model;
}

void compare(const char* begin, const char* end, const std::string& text) {
    sockaddr_in address;
    std::memset(&address, 0x77, sizeof(address));
    const bool valid = qv::net::parse_addr(begin, end, address);
    const Model model = model_of(text);
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
