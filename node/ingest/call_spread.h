// Spreads calls over the sockets that share a port, so that all packets of a call come to the same
// one: the choice depends on nothing but the low 32 bits of the call key. No state; any thread may
// call it.
#pragma once

#include <cstddef>
#include <string>

namespace qv::node {

// Returns the index of the socket, of at most 65,536 `sockets` that share a port, to which the
// system passes this datagram once they spread calls. A datagram that ends before the key belongs
// to the first one.
std::size_t socket_of_call(const unsigned char* datagram, std::size_t size, std::size_t sockets);

// Makes the system spread calls over the sockets that share the port of this one, in the order in
// which they were bound. Further sockets that are bound to the port get nothing. Returns what went
// wrong, or an empty text.
std::string spread_calls(int descriptor, std::size_t sockets);

}  // namespace qv::node
