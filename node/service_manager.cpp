#include "node/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace qv::node {

std::string notify_service_manager(const std::string& state) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment.
    const char* variable = std::getenv("NOTIFY_SOCKET");
    const std::string path = variable != nullptr ? variable : "";
    if (path.empty()) {
        return {};
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return "NOTIFY_SOCKET: the path is too long";
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    // The name of an abstract socket is written with an @ in place of its zero byte.
    if (path.front() == '@') {
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool sent =
        descriptor >= 0 && sendto(descriptor, state.data(), state.size(), MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), size) >= 0;
    const int error = errno;
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return sent ? std::string() : path + ": " + std::generic_category().message(error);
}

}  // namespace qv::node
