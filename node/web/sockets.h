// Cuts off TCP connections that the library for HTTP owns. It offers no way to end a connection
// from another thread, nor its descriptor; so these functions look through the descriptors of the
// process. No state; any thread may call them.
#pragma once

#include <cstdint>
#include <string>

namespace qv::node::web {

// Shuts down all sockets that listen on this local port or are connected to it from outside.
void shut_down_port(std::uint16_t port);

// Shuts down the connection between this local port and the peer, "a.b.c.d:port".
void shut_down_connection(std::uint16_t port, const std::string& peer);

}  // namespace qv::node::web
