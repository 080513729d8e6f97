// A media node for tests: a UDP socket on 127.0.0.1 that gives out what it receives, in
// the order in which it came.
//
// One thread at a time.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/packet_text.h"

namespace qv::tests {

class MediaNode {
  public:
    // std::system_error: no socket to be had.
    MediaNode() : descriptor_(::socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(local);
        // Room for what many calls send at once; an ordinary user may get less.
        const int room = 16 << 20;
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

    // The next datagram; empty when none comes in time.
    Bytes receive(std::chrono::milliseconds patience = std::chrono::seconds(2)) {
        pollfd ready{descriptor_, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1) {
            return {};
        }
        Bytes packet(65536);
        const ssize_t size = ::recv(descriptor_, packet.data(), packet.size(), 0);
        packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return packet;
    }

    // What has come, up to a quiet time.
    std::vector<Bytes> receive_all(
        std::chrono::milliseconds quiet_time = std::chrono::milliseconds(30)) {
        std::vector<Bytes> packets;
        for (Bytes packet = receive(quiet_time); !packet.empty(); packet = receive(quiet_time)) {
            packets.push_back(std::move(packet));
        }
        return packets;
    }

    // The type bytes of what has come: "81838382".
    std::string receive_types() {
        std::string types;
        for (const Bytes& packet : receive_all()) {
            types += field(packet, 4, 1);
        }
        return types;
    }

  private:
    int descriptor_;
    std::uint16_t port_ = 0;
};

}  // namespace qv::tests
