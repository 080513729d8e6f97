#include "fuzz/support/system_double.h"

#include <dlfcn.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "fuzz/support/require.h"

namespace qv::fuzz {

namespace {

constexpr std::int64_t SECOND_US = 1000000;
constexpr int BUFFER_SIZE = 212992;

// The system's own function, which the one of the same name below hides.
template <typename Function>
Function* system_function(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::int64_t in_us(const timespec& time) {
    return time.tv_sec * SECOND_US + time.tv_nsec / 1000;
}

timespec from_us(std::int64_t us) {
    return {us / SECOND_US, us % SECOND_US * 1000};
}

int real_clock_gettime(clockid_t clock, timespec* time) {
    static auto* const next = system_function<int(clockid_t, timespec*)>("clock_gettime");
    return next(clock, time);
}

bool names_configuration(const char* path) {
    constexpr char name[] = "/freeswitch_mod.conf";
    const std::size_t length = std::strlen(path);
    return length > std::strlen(name) && std::strcmp(path + length - std::strlen(name), name) == 0;
}

// A path under which the text of the configuration file can be opened.
std::string path_of_text(const std::string& text) {
    static const int descriptor = ::memfd_create("configuration", MFD_CLOEXEC);
    require(::ftruncate(descriptor, 0) == 0 && ::pwrite(descriptor, text.data(), text.size(), 0) ==
                                                   static_cast<ssize_t>(text.size()),
            "the configuration can be kept in memory");
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// The error of a send on this descriptor; 0 for a socket.
int error_of_descriptor(int descriptor) {
    static auto* const next = system_function<int(int, int, int, void*, socklen_t*)>("getsockopt");
    int type = 0;
    socklen_t size = sizeof(type);
    return next(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 ? 0 : errno;
}

ssize_t send(int descriptor, const void* data, std::size_t size, const sockaddr* to) {
    SystemDouble& system = system_double();
    system.attempts.push_back(
        {descriptor, reinterpret_cast<std::uintptr_t>(data), system.steady_us.load()});
    errno = error_of_descriptor(descriptor);
    if (errno != 0) {
        return -1;
    }
    SendOutcome outcome;
    if (!system.outcomes.empty()) {
        outcome = system.outcomes.front();
        system.outcomes.pop_front();
    }
    if (outcome.kind == SendOutcome::Kind::FAILS) {
        errno = outcome.value;
        return -1;
    }
    if (outcome.kind == SendOutcome::Kind::SHORT) {
        size = std::min(size, static_cast<std::size_t>(outcome.value));
    }
    sockaddr_in address{};
    std::memcpy(&address, to, sizeof(address));
    unsigned char bytes[4];
    std::memcpy(bytes, &address.sin_addr, sizeof(bytes));
    system.datagram_sink(
        datagram_text(address.sin_family, bytes, ntohs(address.sin_port), data, size));
    return static_cast<ssize_t>(size);
}

}  // namespace

SystemDouble& system_double() {
    static auto* const system = new SystemDouble;
    return *system;
}

std::string datagram_text(unsigned family, const unsigned char (&address)[4], unsigned port,
                          const void* data, std::size_t size) {
    char head[64];
    std::snprintf(head, sizeof(head), "datagram to %u.%u.%u.%u:%u (family %u): ", address[0],
                  address[1], address[2], address[3], port, family);
    std::string text = head;
    text.append(static_cast<const char*>(data), size);
    return text;
}

std::int64_t real_wall_us() {
    timespec now{};
    real_clock_gettime(CLOCK_REALTIME, &now);
    return in_us(now);
}

}  // namespace qv::fuzz

using qv::fuzz::system_double;
using qv::fuzz::system_function;

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED ssize_t sendto(int descriptor, const void* data, size_t size, int flags,
                        const sockaddr* to, socklen_t to_size) {
    qv::fuzz::require(flags == 0 && to_size == sizeof(sockaddr_in), "a send has the usual form");
    return qv::fuzz::send(descriptor, data, size, to);
}

EXPORTED int socket(int family, int type, int protocol) noexcept {
    static auto* const next = system_function<int(int, int, int)>("socket");
    auto& system = system_double();
    if (system.socket_error != 0) {
        errno = system.socket_error;
        return -1;
    }
    system.last_socket = next(family, type, protocol);
    return system.last_socket;
}

EXPORTED int bind(int descriptor, const sockaddr* address, socklen_t size) noexcept {
    static auto* const next = system_function<int(int, const sockaddr*, socklen_t)>("bind");
    if (system_double().bind_error != 0) {
        errno = system_double().bind_error;
        return -1;
    }
    return next(descriptor, address, size);
}

// The bytes that wait in a socket's send buffer come from here.
EXPORTED int ioctl(int descriptor, unsigned long request, ...) noexcept {
    static auto* const next = system_function<int(int, unsigned long, void*)>("ioctl");
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const int result = next(descriptor, request, argument);
    if (request == SIOCOUTQ && result == 0) {
        const auto& system = system_double();
        *static_cast<int*>(argument) =
            system.steady_us < system.room_at_us ? qv::fuzz::BUFFER_SIZE : 0;
    }
    return result;
}

EXPORTED int getsockopt(int descriptor, int level, int option, void* value,
                        socklen_t* size) noexcept {
    static auto* const next = system_function<int(int, int, int, void*, socklen_t*)>("getsockopt");
    const int result = next(descriptor, level, option, value, size);
    if (level == SOL_SOCKET && option == SO_SNDBUF && result == 0) {
        *static_cast<int*>(value) = qv::fuzz::BUFFER_SIZE;
    }
    return result;
}

EXPORTED int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const auto& system = system_double();
    if (clock == CLOCK_MONOTONIC) {
        *time = qv::fuzz::from_us(system.steady_us);
        return 0;
    }
    const int result = qv::fuzz::real_clock_gettime(clock, time);
    const std::int64_t still = system.wall_us;
    // After five seconds the real clock is returned again. The fuzzer needs it to report an input
    // that hangs.
    if (clock == CLOCK_REALTIME && result == 0 && still != 0 &&
        qv::fuzz::in_us(*time) - still < 5 * qv::fuzz::SECOND_US) {
        *time = qv::fuzz::from_us(still);
    }
    return result;
}

// Time passes for whoever sleeps.
EXPORTED int nanosleep(const timespec* time, timespec* /*rest*/) {
    system_double().steady_us += qv::fuzz::in_us(*time);
    return 0;
}

// The standard library opens a stream's file with this function.
EXPORTED FILE* fopen64(const char* path, const char* mode) {
    static auto* const next = system_function<FILE*(const char*, const char*)>("fopen64");
    if (!qv::fuzz::names_configuration(path)) {
        return next(path, mode);
    }
    const qv::fuzz::ConfigurationFile& file = system_double().file;
    switch (file.kind) {
        case qv::fuzz::ConfigurationFile::Kind::MISSING:
            errno = ENOENT;
            return nullptr;
        case qv::fuzz::ConfigurationFile::Kind::FOLDER:
            return next("/", mode);
        case qv::fuzz::ConfigurationFile::Kind::TEXT:
            break;
    }
    return next(qv::fuzz::path_of_text(file.text).c_str(), mode);
}

EXPORTED int stat(const char* path, struct stat* status) noexcept {
    static auto* const next = system_function<int(const char*, struct stat*)>("stat");
    if (!qv::fuzz::names_configuration(path)) {
        return next(path, status);
    }
    const bool folder = system_double().file.kind == qv::fuzz::ConfigurationFile::Kind::FOLDER;
    return next(folder ? "/" : "/proc/self/exe", status);
}
