#include "tools/networks.h"

#include <arpa/inet.h>

#include <algorithm>

#include "tools/number.h"

namespace qv::tools {

namespace {

constexpr unsigned ADDRESS_BITS = 32;

// Reads the number of bits, which must consist of digits only.
std::optional<unsigned> parse_prefix(const std::string& text) {
    const auto bits = parse_number<unsigned>(text);
    return bits.has_value() && *bits <= ADDRESS_BITS ? bits : std::nullopt;
}

// A shift by all 32 bits is undefined.
std::uint32_t mask_of(unsigned bits) {
    return bits == 0 ? 0 : ~std::uint32_t{0} << (ADDRESS_BITS - bits);
}

}  // namespace

std::optional<Network> parse_network(const std::string& text) {
    const std::size_t slash = text.find('/');
    const auto bits = slash == std::string::npos ? std::optional(ADDRESS_BITS)
                                                 : parse_prefix(text.substr(slash + 1));
    in_addr address{};
    if (!bits.has_value() || inet_pton(AF_INET, text.substr(0, slash).c_str(), &address) != 1) {
        return std::nullopt;
    }
    const std::uint32_t mask = mask_of(*bits);
    return Network{ntohl(address.s_addr) & mask, mask};
}

std::string check_network(const std::string& text) {
    return parse_network(text).has_value()
               ? std::string()
               : "'" + text + "' is no IPv4 address or network, such as 192.0.2.0/24";
}

bool contain(const std::vector<Network>& networks, const sockaddr_in& address) {
    return std::any_of(networks.begin(), networks.end(),
                       [&](const Network& network) { return network.contains(address); });
}

}  // namespace qv::tools
