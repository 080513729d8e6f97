#include "node/web/sockets.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <charconv>
#include <filesystem>
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

}  // namespace

void shut_down_port(std::uint16_t port) {
    for_each_socket(port,
                    [](int descriptor, const std::string&) { ::shutdown(descriptor, SHUT_RDWR); });
}

void shut_down_connection(std::uint16_t port, const std::string& peer) {
    for_each_socket(port, [&peer](int descriptor, const std::string& other) {
        if (other == peer) {
            ::shutdown(descriptor, SHUT_RDWR);
        }
    });
}

}  // namespace qv::node::web
