// A UDP socket over IPv4 that never waits, closed with its owner. Belongs to one thread at a time.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace qv::tools {

class UdpSocket {
  public:
    // Throws std::system_error if there is no socket.
    UdpSocket() : descriptor_(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        if (descriptor_ < 0) {
            throw std::system_error(errno, std::generic_category(), "no socket");
        }
    }
    ~UdpSocket() { ::close(descriptor_); }
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    int descriptor() const { return descriptor_; }

  private:
    const int descriptor_;
};

}  // namespace qv::tools
