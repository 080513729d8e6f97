// While it exists, the process cannot open a file descriptor. Open ones stay open.
//
// One at a time, because the limit is that of the whole process.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace qv::tests {

class NoDescriptors {
  public:
    // std::system_error: the limit cannot be set.
    NoDescriptors() {
        const int lowest_free = ::dup(STDERR_FILENO);
        if (lowest_free >= 0) {
            ::close(lowest_free);
        }
        if (lowest_free < 0 || ::getrlimit(RLIMIT_NOFILE, &before_) != 0) {
            throw std::system_error(errno, std::generic_category(), "descriptor limit");
        }
        set({static_cast<rlim_t>(lowest_free), before_.rlim_max});
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

  private:
    static void set(const rlimit& limit) {
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            throw std::system_error(errno, std::generic_category(), "descriptor limit");
        }
    }

    rlimit before_{};
};

}  // namespace qv::tests
