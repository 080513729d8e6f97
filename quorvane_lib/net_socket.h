// Reads IPv4 addresses and host lists from text; the UDP socket that sends the media.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace qv::net {

// A host as written, a name or a dotted address, and its port in host byte order.
struct Host {
    std::string host;
    std::uint16_t port = 0;
};

// A host with its socket address, which is 0.0.0.0 if the host is no dotted address.
struct HostAddr {
    std::string host;
    std::uint16_t port = 0;
    sockaddr_in addr{};
};

// The parsers below keep no state and never log: any thread may call them.

// Reads "address:port", "address", ":port", "port" or a blank text up to `end` (null:
// up to the terminating zero). A missing address is 127.0.0.1, a missing port 0; names are not
// resolved. False for a null or any other text; `out` may then be partly set.
// A blank text sets address and port only, not the family.
bool parse_addr(const char* text, const char* end, sockaddr_in& out);

// Appends a Host for each item of the comma-separated list "host:port" or
// "host:first-last", one for each port of a range. Items of another form are skipped;
// a port is what a text stream reads, 0 for no number.
void parse_hosts(const std::string& text, std::list<Host>& out);

// Appends socket addresses. Also skips items whose ports are not entirely valid numbers. Not
// used here; kept for its users.
void parse_addrs(const std::string& text, std::list<HostAddr>& out);

// The local address, dotted, that the system would use to reach `peer` (network byte
// order). `fallback` for the peers 0.0.0.0 and 255.255.255.255 and when the system does not
// report one. Sends nothing. Not used here; kept for its users.
std::string get_host_ip(std::uint32_t peer, const std::string& fallback);

// This machine's name; empty when the system does not report it. Not used here; kept for its
// users.
std::string get_host_name();

// An unconnected UDP socket over IPv4.
//
// Owned by the module context, one for all calls. `send` may be called by any number of
// threads at once, without a lock: each datagram is one system call. The other functions
// are called by one thread at a time. `open` and `close_under_senders` may run while
// threads send, `close` and `release_number` may not: they give the descriptor's number
// back to the system, and a send that has the number already would reach what is opened
// next. System errors are logged here, once.
class Socket {
  public:
    Socket() = default;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    virtual ~Socket();

    // Creates the socket and binds it. `port` and `address` are in host byte order; 0 means any.
    // Returns true at once if the socket is open. Keeps a descriptor whose bind failed. Uses the
    // number again that `close_under_senders` has left taken.
    bool open(int port, unsigned int address);

    // Sends one datagram. Returns true without sending when `data` is null or `size` is 0. Waits
    // at most one or two ticks of the system's clock for room in the send buffer.
    bool send(const sockaddr_in& to, const char* data, unsigned long size);

    // Waits until the send buffer has room for a datagram, at most `patience`. Does not reserve
    // the room. Returns at once on a closed socket. Any thread may call it at any time.
    void wait_for_room(std::chrono::milliseconds patience) const;

    // Receives one datagram of at most `size` bytes and returns its length, or 0 when a signal
    // interrupts. Any other failure ends the process.
    long read(unsigned char* buffer, unsigned long size);

    // Harmless on a closed socket.
    void close();

    // Closes the socket but leaves its number taken, by a descriptor that nothing can be sent
    // on: a send that is under way fails as on a closed socket. `open`, `close` or
    // `release_number` ends that.
    void close_under_senders();

    // Gives back the number that `close_under_senders` has left taken, if there is one.
    void release_number();

  private:
    struct Buffer {
        unsigned char bytes[65544];
    };

    std::int32_t descriptor() const { return descriptor_.load(std::memory_order_relaxed); }
    std::int32_t use_taken_number(std::int32_t created);

    std::unique_ptr<Buffer> buffer_;  // Room for a caller of `read`; nothing sets it yet.

    // -1 while closed. Atomic because calls may outlive the module's unloading, which
    // closes the socket.
    std::atomic<std::int32_t> descriptor_{-1};
    static_assert(std::atomic<std::int32_t>::is_always_lock_free);

    std::int32_t taken_number_ = -1;  // Left taken by close_under_senders; -1 for none.
};

}  // namespace qv::net
