// A media node for tests: a UDP socket on 127.0.0.1 that returns what it receives, in the
// order of arrival.
//
// One thread at a time receives; any thread may ask how full the socket is and how many
// datagrams it lost.
#pragma once

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/packet_text.h"

namespace qv::tests {

class MediaNode {
  public:
    // `room` is the size of the socket's buffer in bytes, as the system counts them. It is enough
    // for many calls; the system may grant an ordinary user less. Throws std::system_error if there
    // is no socket.
    explicit MediaNode(int room = 16 << 20) : descriptor_(::socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(local);
        if (::setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) != 0) {
            ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
        }
        auto* const address = reinterpret_cast<sockaddr*>(&local);
        if (descriptor_ < 0 || ::bind(descriptor_, address, size) != 0 ||
            ::getsockname(descriptor_, address, &size) != 0) {
            throw std::system_error(errno, std::generic_category(), "media node");
        }
        port_ = ntohs(local.sin_port);
    }
    MediaNode(const MediaNode&) = delete;
    MediaNode& operator=(const MediaNode&) = delete;
    ~MediaNode() { ::close(descriptor_); }

    std::uint16_t port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    // The next datagram; empty when none arrives in time.
    Bytes receive(std::chrono::milliseconds patience = std::chrono::seconds(2)) {
        pollfd ready{descriptor_, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1) {
            return {};
        }
        const ssize_t size = ::recv(descriptor_, buffer_.data(), buffer_.size(), 0);
        return size > 0 ? Bytes(buffer_.begin(), buffer_.begin() + size) : Bytes();
    }

    // All datagrams until none arrives for a while.
    std::vector<Bytes> receive_all(
        std::chrono::milliseconds quiet_time = std::chrono::milliseconds(30)) {
        std::vector<Bytes> packets;
        for (Bytes packet = receive(quiet_time); !packet.empty(); packet = receive(quiet_time)) {
            packets.push_back(std::move(packet));
        }
        return packets;
    }

    // The type bytes of all datagrams: "81838382".
    std::string receive_types() {
        std::string types;
        for (const Bytes& packet : receive_all()) {
            types += field(packet, 4, 1);
        }
        return types;
    }

    // The number of datagrams that were lost because the socket was full. While it is 0, a packet
    // that did not arrive was not sent.
    std::uint32_t dropped() const { return memory()[SK_MEMINFO_DROPS]; }

    // Waits while the socket is more than a quarter full, so that a fast sender does not overrun
    // the node. Returns false if the node does not catch up in time.
    bool wait_for_room(std::chrono::milliseconds patience = std::chrono::seconds(30)) const {
        const auto give_up = std::chrono::steady_clock::now() + patience;
        while (more_than_a_quarter_full()) {
            if (std::chrono::steady_clock::now() > give_up) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

  private:
    using Memory = std::array<std::uint32_t, SK_MEMINFO_VARS>;

    // The system's figures about the socket's memory. Throws std::system_error.
    Memory memory() const {
        Memory memory{};
        socklen_t size = sizeof(memory);
        if (::getsockopt(descriptor_, SOL_SOCKET, SO_MEMINFO, memory.data(), &size) != 0) {
            throw std::system_error(errno, std::generic_category(), "media node");
        }
        return memory;
    }
    bool more_than_a_quarter_full() const {
        const Memory now = memory();
        return now[SK_MEMINFO_RMEM_ALLOC] > now[SK_MEMINFO_RCVBUF] / 4;
    }

    int descriptor_;
    std::uint16_t port_ = 0;
    Bytes buffer_ = Bytes(65536);
};

}  // namespace qv::tests
