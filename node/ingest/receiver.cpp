#include "node/ingest/receiver.h"

#include <linux/sock_diag.h>

#include <array>
#include <asio/ip/address_v4.hpp>
#include <system_error>
#include <utility>

namespace qv::node {

namespace {

using SharedPort = asio::detail::socket_option::boolean<SOL_SOCKET, SO_REUSEPORT>;

}  // namespace

Receiver::Receiver(asio::io_context& loop, OnDatagram on_datagram)
    : socket_(loop),
      timer_(loop),
      on_datagram_(std::move(on_datagram)),
      buffers_(BATCH * LARGEST),
      sources_(BATCH),
      parts_(BATCH),
      headers_(BATCH) {
    for (unsigned i = 0; i < BATCH; ++i) {
        parts_[i] = {buffers_.data() + i * LARGEST, LARGEST};
        headers_[i].msg_hdr.msg_iov = &parts_[i];
        headers_[i].msg_hdr.msg_iovlen = 1;
        headers_[i].msg_hdr.msg_name = &sources_[i];
        headers_[i].msg_hdr.msg_namelen = sizeof sources_[i];
    }
}

std::string Receiver::open(const sockaddr_in& address, int buffer_bytes) {
    std::error_code error;
    socket_.open(asio::ip::udp::v4(), error);
    return error ? error.message() : bind(address, buffer_bytes);
}

std::string Receiver::share_port() {
    std::error_code error;
    socket_.set_option(SharedPort(true), error);
    return error ? error.message() : std::string();
}

std::string Receiver::join(const sockaddr_in& address, int buffer_bytes) {
    std::error_code error;
    socket_.open(asio::ip::udp::v4(), error);
    if (!error) {
        socket_.set_option(SharedPort(true), error);
    }
    return error ? error.message() : bind(address, buffer_bytes);
}

std::string Receiver::bind(const sockaddr_in& address, int buffer_bytes) {
    std::error_code error;
    socket_.bind({asio::ip::address_v4(ntohl(address.sin_addr.s_addr)), ntohs(address.sin_port)},
                 error);
    if (!error) {
        socket_.non_blocking(true, error);
    }
    if (error) {
        return error.message();
    }
    // SO_RCVBUFFORCE may exceed the system's limit, but needs a privilege.
    const int descriptor = socket_.native_handle();
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes) !=
        0) {
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof buffer_bytes);
    }
    return {};
}

void Receiver::start() {
    wait();
}

void Receiver::wait() {
    socket_.async_wait(asio::ip::udp::socket::wait_read, [this](std::error_code error) {
        if (!error) {
            take();
        }
    });
}

void Receiver::pause() {
    timer_.expires_after(PAUSE);
    timer_.async_wait([this](std::error_code error) {
        if (!error) {
            take();
        }
    });
}

void Receiver::take() {
    ++wake_ups_;
    const std::uint64_t before = received_;
    // The number of batches is limited, so that timers and signals get their turn under a flood.
    unsigned turn = 0;
    while (turn < BATCHES_PER_TURN && receive_batch() == BATCH) {
        ++turn;
    }
    const Micros now = steady_now();
    const bool drained = turn < BATCHES_PER_TURN;
    const bool soon_again = now - last_taken_ < 2 * PAUSE;
    last_taken_ = now;
    if (drained && soon_again && received_ != before) {
        pause();
    } else {
        wait();
    }
}

void Receiver::drain_and_stop() {
    for (unsigned turn = 0; turn < LAST_BATCHES && receive_batch() == BATCH; ++turn) {
    }
    overflowed();
    timer_.cancel();
    std::error_code ignored;
    socket_.close(ignored);
}

unsigned Receiver::receive_batch() {
    const int got =
        recvmmsg(socket_.native_handle(), headers_.data(), BATCH, MSG_DONTWAIT, nullptr);
    if (got <= 0) {
        return 0;
    }
    const auto count = static_cast<unsigned>(got);
    received_ += count;
    const Micros now = steady_now();
    for (unsigned i = 0; i < count; ++i) {
        on_datagram_({buffers_.data() + i * LARGEST, headers_[i].msg_len, {now, sources_[i]}});
    }
    return count;
}

// Asks the system. The counter that comes with each datagram would miss datagrams that were dropped
// after the last one.
std::uint64_t Receiver::overflowed() {
    std::array<std::uint32_t, SK_MEMINFO_VARS> figures{};
    socklen_t size = sizeof figures;
    if (socket_.is_open() &&
        getsockopt(socket_.native_handle(), SOL_SOCKET, SO_MEMINFO, figures.data(), &size) == 0) {
        const std::uint32_t counter = figures[SK_MEMINFO_DROPS];
        overflowed_ += counter - last_overflow_;
        last_overflow_ = counter;
    }
    return overflowed_;
}

std::uint16_t Receiver::port() const {
    std::error_code error;
    return socket_.local_endpoint(error).port();
}

int Receiver::granted_buffer() const {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    // Linux reports twice the granted figure.
    getsockopt(const_cast<asio::ip::udp::socket&>(socket_).native_handle(), SOL_SOCKET, SO_RCVBUF,
               &bytes, &size);
    return bytes / 2;
}

}  // namespace qv::node
