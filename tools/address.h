// IPv4 addresses with a port, as the programs read and write them. No state; any thread may call
// these functions.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

namespace qv::tools {

// Returns "a.b.c.d:port". `address` is 4 bytes in network order, `port` is in host order.
std::string address_text(const unsigned char* address, std::uint16_t port);
std::string address_text(const sockaddr_in& address);

// Reads "a.b.c.d:port", or "port" for the loopback address. Returns nullopt for any other text,
// such as an address without a port. This includes ":port", which elsewhere means all addresses of
// the machine.
std::optional<sockaddr_in> parse_address(const std::string& text);

// For the check of an option: return why parse_address() refuses the text, or an empty text.
// check_address() is for an address to listen on, and explains what ":port" could mean there.
std::string check_address(const std::string& text);
std::string check_destination(const std::string& text);

}  // namespace qv::tools
