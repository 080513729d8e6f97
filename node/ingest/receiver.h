// The UDP socket of the media node. Reads datagrams from the kernel in batches.
//
// If there are few datagrams, each is read as it comes. If there are many, the socket is read once
// a millisecond, because waking up for each datagram would cost more than reading it.
//
// Belongs to the thread that runs the event loop.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "node/calls/types.h"

namespace qv::node {

class Receiver {
  public:
    // Called for each datagram, which is valid until the function returns. Its time is when its
    // batch was read. A datagram longer than LARGEST is truncated.
    using OnDatagram = std::function<void(const Datagram& datagram)>;

    static constexpr std::size_t LARGEST = 2048;

    Receiver(asio::io_context& loop, OnDatagram on_datagram);

    // Each of these returns what went wrong, or an empty text.

    // Binds to `address`, which no other socket may use, and asks the system for a buffer of
    // `buffer_bytes`.
    std::string open(const sockaddr_in& address, int buffer_bytes);
    // From now on other receivers of the same user may join the port of this open one.
    std::string share_port();
    // Binds to an address that another receiver shares; otherwise like open().
    std::string join(const sockaddr_in& address, int buffer_bytes);

    // Starts to call `on_datagram`.
    void start();

    // Reads the datagrams that have come already, without waiting, and stops.
    void drain_and_stop();

    int descriptor() { return socket_.native_handle(); }
    std::uint16_t port() const;
    // The size that the system granted, in bytes.
    int granted_buffer() const;
    // Asks the system how many datagrams it dropped because the buffer was full.
    std::uint64_t overflowed();
    std::uint64_t received() const { return received_; }
    // How often the socket was read.
    std::uint64_t wake_ups() const { return wake_ups_; }

  private:
    static constexpr unsigned BATCH = 128;
    static constexpr unsigned BATCHES_PER_TURN = 16;
    // The limit at the end of a run: a sender may never stop.
    static constexpr unsigned LAST_BATCHES = 4096;
    static constexpr Micros PAUSE{1000};

    std::string bind(const sockaddr_in& address, int buffer_bytes);
    void wait();
    void pause();
    void take();
    unsigned receive_batch();

    asio::ip::udp::socket socket_;
    asio::steady_timer timer_;
    OnDatagram on_datagram_;
    std::vector<unsigned char> buffers_;
    std::vector<sockaddr_in> sources_;
    std::vector<iovec> parts_;
    std::vector<mmsghdr> headers_;
    std::uint64_t received_ = 0;
    std::uint64_t wake_ups_ = 0;
    Micros last_taken_{0};
    std::uint64_t overflowed_ = 0;
    std::uint32_t last_overflow_ = 0;  // The kernel's counter, which wraps.
};

}  // namespace qv::node
