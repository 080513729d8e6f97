#include "tests/support/system_calls.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "tests/support/descriptor_limit.h"

namespace qv::tests {

namespace {

std::atomic<SystemCalls*> watcher{nullptr};

// The system's own function, which the wrapper of the same name hides.
template <typename Function>
Function* system_function(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::string address_text(const sockaddr* address) {
    sockaddr_in inet{};
    std::memcpy(&inet, address, sizeof(inet));
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &inet.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(inet.sin_port));
}

// Executes `call` with the outcome that the test has queued. `size` is the number of bytes to
// transfer; `go_on(size)` calls the system.
template <typename Result, typename GoOn>
Result perform(SeenCall call, std::size_t size, GoOn go_on) {
    SystemCalls* const watching = watcher.load();
    if (watching == nullptr) {
        return go_on(size);
    }
    watching->prepare(call.name);
    const Outcome outcome = watching->take(call.name);
    Result result = -1;
    int error = 0;
    if (outcome.kind == Outcome::Kind::FAIL) {
        error = static_cast<int>(outcome.value);
    } else if (outcome.kind == Outcome::Kind::ANSWER) {
        result = static_cast<Result>(outcome.value);
    } else {
        const bool limited = outcome.kind == Outcome::Kind::LIMIT;
        std::optional<NoDescriptors> starving;
        if (outcome.kind == Outcome::Kind::STARVE) {
            starving.emplace();
        }
        result = go_on(limited ? std::min(size, static_cast<std::size_t>(outcome.value)) : size);
        error = errno;
    }
    call.result = result;
    watching->note(std::move(call));
    errno = error;
    return result;
}

}  // namespace

SystemCalls::SystemCalls() {
    watcher = this;
}

SystemCalls::~SystemCalls() {
    watcher = nullptr;
}

void SystemCalls::next(const std::string& name, Outcome outcome) {
    const LockGuard guard(mutex_);
    outcomes_[name].push_back(outcome);
}

void SystemCalls::before(const std::string& name, std::function<void()> action) {
    const LockGuard guard(mutex_);
    actions_[name] = std::move(action);
}

void SystemCalls::prepare(const std::string& name) {
    std::function<void()> action;
    {
        const LockGuard guard(mutex_);
        const auto found = actions_.find(name);
        action = found == actions_.end() ? nullptr : found->second;
    }
    if (action) {
        action();
    }
}

std::vector<SeenCall> SystemCalls::seen(const std::string& name) const {
    const LockGuard guard(mutex_);
    std::vector<SeenCall> calls;
    std::copy_if(seen_.begin(), seen_.end(), std::back_inserter(calls),
                 [&name](const SeenCall& call) { return call.name == name; });
    return calls;
}

std::vector<std::string> SystemCalls::names() const {
    const LockGuard guard(mutex_);
    std::vector<std::string> names;
    std::transform(seen_.begin(), seen_.end(), std::back_inserter(names),
                   [](const SeenCall& call) { return call.name; });
    return names;
}

Outcome SystemCalls::take(const std::string& name) {
    const LockGuard guard(mutex_);
    std::deque<Outcome>& waiting = outcomes_[name];
    if (waiting.empty()) {
        return Outcome::pass();
    }
    const Outcome outcome = waiting.front();
    waiting.pop_front();
    return outcome;
}

void SystemCalls::note(SeenCall call) {
    const LockGuard guard(mutex_);
    seen_.push_back(std::move(call));
}

}  // namespace qv::tests

using qv::tests::perform;
using qv::tests::system_function;

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED int socket(int family, int type, int protocol) noexcept {
    static auto* const next = system_function<int(int, int, int)>("socket");
    return perform<int>({"socket", {family, type, protocol}, {}, {}, 0}, 0,
                        [=](std::size_t) { return next(family, type, protocol); });
}

EXPORTED int bind(int descriptor, const sockaddr* address, socklen_t size) noexcept {
    static auto* const next = system_function<int(int, const sockaddr*, socklen_t)>("bind");
    return perform<int>(
        {"bind", {descriptor, address->sa_family, size}, qv::tests::address_text(address), {}, 0},
        0, [=](std::size_t) { return next(descriptor, address, size); });
}

EXPORTED int setsockopt(int descriptor, int level, int option, const void* value,
                        socklen_t size) noexcept {
    static auto* const next =
        system_function<int(int, int, int, const void*, socklen_t)>("setsockopt");
    return perform<int>(
        {"setsockopt", {descriptor, level, option}, {}, {static_cast<const char*>(value), size}, 0},
        0, [=](std::size_t) { return next(descriptor, level, option, value, size); });
}

EXPORTED ssize_t sendto(int descriptor, const void* data, size_t size, int flags,
                        const sockaddr* to, socklen_t to_size) {
    static auto* const next =
        system_function<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>(
            "sendto");
    return perform<ssize_t>(
        {"sendto",
         {descriptor, flags, to_size},
         qv::tests::address_text(to),
         {static_cast<const char*>(data), size},
         0},
        size, [=](std::size_t limit) { return next(descriptor, data, limit, flags, to, to_size); });
}

EXPORTED ssize_t recv(int descriptor, void* buffer, size_t size, int flags) {
    static auto* const next = system_function<ssize_t(int, void*, size_t, int)>("recv");
    return perform<ssize_t>(
        {"recv", {descriptor, static_cast<long>(size), flags}, {}, {}, 0}, size,
        [=](std::size_t limit) { return next(descriptor, buffer, limit, flags); });
}

EXPORTED int shutdown(int descriptor, int how) noexcept {
    static auto* const next = system_function<int(int, int)>("shutdown");
    return perform<int>({"shutdown", {descriptor, how}, {}, {}, 0}, 0,
                        [=](std::size_t) { return next(descriptor, how); });
}

EXPORTED int close(int descriptor) {
    static auto* const next = system_function<int(int)>("close");
    return perform<int>({"close", {descriptor}, {}, {}, 0}, 0,
                        [=](std::size_t) { return next(descriptor); });
}

EXPORTED int connect(int descriptor, const sockaddr* address, socklen_t size) {
    static auto* const next = system_function<int(int, const sockaddr*, socklen_t)>("connect");
    return perform<int>({"connect",
                         {descriptor, address->sa_family, size},
                         qv::tests::address_text(address),
                         {},
                         0},
                        0, [=](std::size_t) { return next(descriptor, address, size); });
}

EXPORTED int getsockname(int descriptor, sockaddr* address, socklen_t* size) noexcept {
    static auto* const next = system_function<int(int, sockaddr*, socklen_t*)>("getsockname");
    return perform<int>({"getsockname", {descriptor}, {}, {}, 0}, 0,
                        [=](std::size_t) { return next(descriptor, address, size); });
}

EXPORTED int gethostname(char* name, size_t size) noexcept {
    static auto* const next = system_function<int(char*, size_t)>("gethostname");
    return perform<int>({"gethostname", {static_cast<long>(size)}, {}, {}, 0}, size,
                        [=](std::size_t limit) { return next(name, limit); });
}

EXPORTED int stat(const char* path, struct stat* status) noexcept {
    static auto* const next = system_function<int(const char*, struct stat*)>("stat");
    return perform<int>({"stat", {}, path, {}, 0}, 0,
                        [=](std::size_t) { return next(path, status); });
}

EXPORTED int mkdir(const char* path, mode_t mode) noexcept {
    static auto* const next = system_function<int(const char*, mode_t)>("mkdir");
    return perform<int>({"mkdir", {static_cast<long>(mode)}, path, {}, 0}, 0,
                        [=](std::size_t) { return next(path, mode); });
}

// The standard library opens a stream's file with fopen64, and reads it with read.
EXPORTED FILE* fopen64(const char* path, const char* mode) {
    static auto* const next = system_function<FILE*(const char*, const char*)>("fopen64");
    const auto file = perform<std::intptr_t>({"fopen64", {}, path, {}, 0}, 0, [=](std::size_t) {
        return reinterpret_cast<std::intptr_t>(next(path, mode));
    });
    return file == -1 ? nullptr : reinterpret_cast<FILE*>(file);
}

EXPORTED ssize_t read(int descriptor, void* buffer, size_t size) {
    static auto* const next = system_function<ssize_t(int, void*, size_t)>("read");
    return perform<ssize_t>({"read", {descriptor, static_cast<long>(size)}, {}, {}, 0}, size,
                            [=](std::size_t limit) { return next(descriptor, buffer, limit); });
}
