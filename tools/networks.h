// IPv4 networks: which addresses a program accepts or sends to. A plain value; belongs to one
// thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv::tools {

// The addresses that begin with the same bits.
struct Network {
    std::uint32_t address = 0;  // Host byte order; the bits outside the mask are 0.
    std::uint32_t mask = 0;

    bool contains(const sockaddr_in& sender) const {
        return (ntohl(sender.sin_addr.s_addr) & mask) == address;
    }
};

// Whether the address is inside one of the networks.
bool contain(const std::vector<Network>& networks, const sockaddr_in& address);

// Reads "a.b.c.d/prefix", or "a.b.c.d" for that single address. Bits after the prefix are ignored.
// Returns nullopt for any other text.
std::optional<Network> parse_network(const std::string& text);

// For the check of an option: returns why parse_network() refuses the text, or an empty text.
std::string check_network(const std::string& text);

// The allowed senders. Without any network, all senders are allowed.
class AllowedNetworks {
  public:
    AllowedNetworks() = default;
    explicit AllowedNetworks(std::vector<Network> networks) : networks_(std::move(networks)) {}

    bool allow(const sockaddr_in& sender) const {
        return networks_.empty() || contain(networks_, sender);
    }

  private:
    std::vector<Network> networks_;
};

}  // namespace qv::tools
