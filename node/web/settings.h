// How the node serves its page, as the command line asks for it. Plain values.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

namespace qv::node::web {

struct Settings {
    std::optional<sockaddr_in> address;  // Nullopt: no page.
    std::string token_file;              // Empty: whoever reaches the port sees the calls.
    std::string certificate;             // File with certificate and key. Empty: no TLS.

    // Whether only this machine can reach the page, if there is one.
    bool is_loopback() const {
        return !address.has_value() || ntohl(address->sin_addr.s_addr) >> 24 == 127;
    }
};

}  // namespace qv::node::web
