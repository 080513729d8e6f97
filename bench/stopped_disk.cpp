// Loaded into quorvane-node with LD_PRELOAD, makes its disk stand still: everything that would
// reach the disk waits, either until a file exists (QUORVANE_STOP_UNTIL), or for some seconds
// (QUORVANE_STOP_FOR) that begin some seconds after the first write to a file at a place
// (QUORVANE_STOP_AFTER). bench/node_load.sh --stop-disk and the tests of the media node use it.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

Seconds seconds_from(const char* name) {
    const char* const text = std::getenv(name);
    return Seconds(text != nullptr ? std::strtod(text, nullptr) : 0);
}

// Waits while the disk stands still.
void reach_disk() {
    static const Clock::time_point begin = Clock::now();
    static const Seconds after = seconds_from("QUORVANE_STOP_AFTER");
    static const Seconds length = seconds_from("QUORVANE_STOP_FOR");
    const Seconds now = Clock::now() - begin;
    if (now >= after && now < after + length) {
        std::this_thread::sleep_for(after + length - now);
    }
    static const char* const until = std::getenv("QUORVANE_STOP_UNTIL");
    while (until != nullptr && ::access(until, F_OK) != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" {

ssize_t pwrite64(int file, const void* data, size_t size, off64_t place) {
    static const auto real = next<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
    reach_disk();
    return real(file, data, size, place);
}

ssize_t pwrite(int file, const void* data, size_t size, off_t place) {
    return pwrite64(file, data, size, place);
}

int ftruncate(int file, off_t size) noexcept {
    static const auto real = next<int (*)(int, off_t)>("ftruncate");
    reach_disk();
    return real(file, size);
}

int syncfs(int file) noexcept {
    static const auto real = next<int (*)(int)>("syncfs");
    reach_disk();
    return real(file);
}

int renameat2(int from_folder, const char* from, int to_folder, const char* to,
              unsigned flags) noexcept {
    static const auto real =
        next<int (*)(int, const char*, int, const char*, unsigned)>("renameat2");
    reach_disk();
    return real(from_folder, from, to_folder, to, flags);
}
}

#pragma GCC visibility pop
