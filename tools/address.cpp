#include "tools/address.h"

#include "quorvane_lib/net_socket.h"
#include "tools/format.h"

namespace qv::tools {

std::string address_text(const unsigned char* address, std::uint16_t port) {
    return format("%u.%u.%u.%u:%u", unsigned{address[0]}, unsigned{address[1]},
                  unsigned{address[2]}, unsigned{address[3]}, unsigned{port});
}

std::string address_text(const sockaddr_in& address) {
    return address_text(reinterpret_cast<const unsigned char*>(&address.sin_addr),
                        ntohs(address.sin_port));
}

std::optional<sockaddr_in> parse_address(const std::string& text) {
    // The library's parser would read an address alone as one with port 0.
    const std::string port = text.substr(text.rfind(':') + 1);
    sockaddr_in address{};
    if (port.empty() || port.find('.') != std::string::npos || text.front() == ':' ||
        !net::parse_addr(text.c_str(), nullptr, address)) {
        return std::nullopt;
    }
    address.sin_family = AF_INET;
    return address;
}

std::string check_address(const std::string& text) {
    if (text.size() > 1 && text.front() == ':' && parse_address(text.substr(1)).has_value()) {
        return "'" + text + "' names no address: write 127.0.0.1" + text +
               " for this machine only, or 0.0.0.0" + text + " for all its addresses";
    }
    return check_destination(text);
}

std::string check_destination(const std::string& text) {
    if (parse_address(text).has_value()) {
        return {};
    }
    return "'" + text + "' is no IPv4 address and port, such as 127.0.0.1:40000";
}

}  // namespace qv::tools
