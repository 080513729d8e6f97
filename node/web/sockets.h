// Reaches TCP connections that the library for HTTP owns. It offers no way to end a connection from
// another thread, nor its descriptor; so these functions look through the descriptors of the
// process. Any thread may call them.
#pragma once

#include <cstdint>
#include <string>

namespace qv::node::web {

// Shuts down all sockets that listen on this local port or are connected to it from outside.
void shut_down_port(std::uint16_t port);

// A descriptor of its own for a connection of the library.
class SharedSocket {
  public:
    // The connection between this local port and the peer, "a.b.c.d:port". Throws
    // std::runtime_error if there is none or no descriptor is left.
    SharedSocket(std::uint16_t port, const std::string& peer);
    SharedSocket(const SharedSocket&) = delete;
    SharedSocket& operator=(const SharedSocket&) = delete;
    ~SharedSocket();

    void shut_down() const;
    // Returns how many bytes have come, whether the library has read them or not.
    std::uint64_t received() const;

  private:
    const int descriptor_;
};

}  // namespace qv::node::web
