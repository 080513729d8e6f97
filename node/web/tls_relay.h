// Takes TLS connections and passes what comes over them on to a server on this machine, which
// speaks plain HTTP. The library for HTTP in Debian 12 cannot use that system's OpenSSL itself.
//
// Runs on a thread of its own from the constructor to the destructor. The server asks peer_of() who
// is behind a connection, and refuses connections that do not come from the relay.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace qv::node::web {

class TlsRelay {
  public:
    static constexpr std::size_t MOST_CONNECTIONS = 64;

    // Listens on `address`; port 0 takes a free port. The file has the certificate, its chain, and
    // its key. `server_port` is that of the server on 127.0.0.1. Throws std::runtime_error with the
    // reason if the certificate or the address cannot be used.
    TlsRelay(const sockaddr_in& address, const std::string& certificate, std::uint16_t server_port);
    TlsRelay(const TlsRelay&) = delete;
    TlsRelay& operator=(const TlsRelay&) = delete;
    ~TlsRelay();

    std::uint16_t port() const;

    // Returns the address and port of who is connected through the relay's own connection from
    // `local`, "127.0.0.1:port", to the server. Nullopt if the relay has no such connection: other
    // users can have the same port of another address of this machine. Any thread may call it.
    std::optional<std::string> peer_of(const std::string& local) const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv::node::web
