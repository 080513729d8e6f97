// A second, simple parser for the text of an address and a port.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/support/number_model.h"

namespace qv::fuzz {

struct AddressModel {
    bool valid = false;
    bool blank = false;
    unsigned char bytes[4] = {127, 0, 0, 1};
    std::uint16_t port = 0;
};

inline AddressModel read_address(std::string text) {
    AddressModel model;
    while (!text.empty() && is_space(text[0])) {
        text.erase(0, 1);
    }
    model.blank = text.empty();
    const std::size_t colon = text.rfind(':');
    const std::string host = colon == std::string::npos ? text : text.substr(0, colon);
    const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
    unsigned char bytes[4];
    if (read_dotted(host, bytes)) {
        std::memcpy(model.bytes, bytes, sizeof(bytes));
        model.valid = port.empty() || read_port(port, model.port);
    } else if (colon == std::string::npos) {
        model.valid = model.blank || read_port(text, model.port);
    } else {
        model.valid = host.empty() && (port.empty() || read_port(port, model.port));
    }
    return model;
}

}  // namespace qv::fuzz
