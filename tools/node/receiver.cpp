#include "tools/node/receiver.h"

#include <asio/ip/address_v4.hpp>
#include <cstring>
#include <system_error>
#include <utility>

namespace qv::tools::node {

Receiver::Receiver(asio::io_context& loop, OnDatagram on_datagram)
    : socket_(loop),
      on_datagram_(std::move(on_datagram)),
      buffers_(BATCH * LARGEST),
      controls_(BATCH * CONTROL_BYTES),
      parts_(BATCH),
      headers_(BATCH) {
    for (unsigned i = 0; i < BATCH; ++i) {
        parts_[i] = {buffers_.data() + i * LARGEST, LARGEST};
        headers_[i].msg_hdr.msg_iov = &parts_[i];
        headers_[i].msg_hdr.msg_iovlen = 1;
    }
}

std::string Receiver::open(const sockaddr_in& address, int buffer_bytes) {
    std::error_code error;
    socket_.open(asio::ip::udp::v4(), error);
    if (!error) {
        socket_.bind(
            {asio::ip::address_v4(ntohl(address.sin_addr.s_addr)), ntohs(address.sin_port)}, error);
    }
    if (!error) {
        socket_.non_blocking(true, error);
    }
    if (error) {
        return error.message();
    }
    // The forced form passes the system's limit; it needs a privilege.
    const int descriptor = socket_.native_handle();
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes) !=
        0) {
        setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof buffer_bytes);
    }
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    return {};
}

void Receiver::start() {
    wait();
}

void Receiver::wait() {
    socket_.async_wait(asio::ip::udp::socket::wait_read, [this](std::error_code error) {
        if (error) {
            return;
        }
        // Bounded, so that timers and signals get their turn under a flood.
        for (unsigned turn = 0; turn < BATCHES_PER_TURN && receive_batch() == BATCH; ++turn) {
        }
        wait();
    });
}

void Receiver::drain_and_stop() {
    for (unsigned turn = 0; turn < LAST_BATCHES && receive_batch() == BATCH; ++turn) {
    }
    std::error_code ignored;
    socket_.close(ignored);
}

unsigned Receiver::receive_batch() {
    for (unsigned i = 0; i < BATCH; ++i) {
        headers_[i].msg_hdr.msg_control = controls_.data() + i * CONTROL_BYTES;
        headers_[i].msg_hdr.msg_controllen = CONTROL_BYTES;
    }
    const int got =
        recvmmsg(socket_.native_handle(), headers_.data(), BATCH, MSG_DONTWAIT, nullptr);
    if (got <= 0) {
        return 0;
    }
    const auto count = static_cast<unsigned>(got);
    received_ += count;
    read_overflow(headers_[count - 1].msg_hdr);
    const Micros now = steady_now();
    for (unsigned i = 0; i < count; ++i) {
        on_datagram_(buffers_.data() + i * LARGEST, headers_[i].msg_len, now);
    }
    return count;
}

void Receiver::read_overflow(const msghdr& header) {
    msghdr copy = header;
    for (cmsghdr* at = CMSG_FIRSTHDR(&copy); at != nullptr; at = CMSG_NXTHDR(&copy, at)) {
        if (at->cmsg_level == SOL_SOCKET && at->cmsg_type == SO_RXQ_OVFL) {
            std::uint32_t counter = 0;
            std::memcpy(&counter, CMSG_DATA(at), sizeof counter);
            overflowed_ += counter - last_overflow_;
            last_overflow_ = counter;
        }
    }
}

std::uint16_t Receiver::port() const {
    std::error_code error;
    return socket_.local_endpoint(error).port();
}

int Receiver::granted_buffer() const {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    // Linux answers with twice the figure that was asked for: its own book-keeping.
    getsockopt(const_cast<asio::ip::udp::socket&>(socket_).native_handle(), SOL_SOCKET, SO_RCVBUF,
               &bytes, &size);
    return bytes / 2;
}

}  // namespace qv::tools::node
