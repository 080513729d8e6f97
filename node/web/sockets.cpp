#include "node/web/sockets.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "tools/address.h"

namespace qv::node::web {

namespace {

using NameOf = int (*)(int, sockaddr*, socklen_t*);

// Returns an empty text unless the descriptor is an IPv4 socket with such an address.
std::string address_of(int descriptor, NameOf name_of) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    const bool known = name_of(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
                       address.sin_family == AF_INET;
    return known ? tools::address_text(address) : std::string();
}

bool is_tcp(int descriptor) {
    int type = 0;
    socklen_t size = sizeof type;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

// Calls `visit` with each TCP socket that has this local port, and its peer's address, which is
// empty if it listens.
template <typename Visit>
void for_each_socket(std::uint16_t port, Visit visit) {
    const std::string ending = ":" + std::to_string(port);
    std::error_code error;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator entry("/proc/self/fd", error); !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        int descriptor = -1;
        std::from_chars(name.data(), name.data() + name.size(), descriptor);
        if (!is_tcp(descriptor)) {
            continue;
        }
        const std::string local = address_of(descriptor, ::getsockname);
        if (local.size() > ending.size() &&
            local.compare(local.size() - ending.size(), ending.size(), ending) == 0) {
            visit(descriptor, address_of(descriptor, ::getpeername));
        }
    }
}

// Returns -1 if there is no such connection.
int copy_of(std::uint16_t port, const std::string& peer) {
    int copy = -1;
    for_each_socket(port, [&](int descriptor, const std::string& other) {
        if (other == peer && copy < 0) {
            copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
        }
    });
    return copy;
}

}  // namespace

void shut_down_port(std::uint16_t port) {
    for_each_socket(port,
                    [](int descriptor, const std::string&) { ::shutdown(descriptor, SHUT_RDWR); });
}

SharedSocket::SharedSocket(std::uint16_t port, const std::string& peer)
    : descriptor_(copy_of(port, peer)) {
    if (descriptor_ < 0) {
        throw std::runtime_error("the connection cannot be reached");
    }
}

SharedSocket::~SharedSocket() {
    ::close(descriptor_);
}

void SharedSocket::shut_down() const {
    ::shutdown(descriptor_, SHUT_RDWR);
}

std::uint64_t SharedSocket::received() const {
    tcp_info info{};
    socklen_t size = sizeof info;
    const bool known = ::getsockopt(descriptor_, IPPROTO_TCP, TCP_INFO, &info, &size) == 0;
    return known ? info.tcpi_bytes_received : 0;
}

}  // namespace qv::node::web
