#include "node/audio/disk_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace qv::node {

DiskSync::DiskSync(std::chrono::duration<double> interval, Work work)
    : interval_(std::chrono::duration_cast<std::chrono::steady_clock::duration>(interval)),
      work_(std::move(work)),
      thread_([this] { run(); }) {}

DiskSync::~DiskSync() {
    {
        const LockGuard lock(mutex_);
        end_ = true;
    }
    ending_.notify_one();
    thread_.join();
}

std::string DiskSync::take_error() {
    const LockGuard lock(mutex_);
    return std::exchange(error_, {});
}

void DiskSync::run() {
    bool ended = false;
    while (!ended) {
        ended = ended_after(std::chrono::steady_clock::now() + interval_);
        const std::string error = work_();
        if (!error.empty()) {
            const LockGuard lock(mutex_);
            error_ = error;
        }
    }
}

// Waits until that time. Returns true if the object is destroyed first.
bool DiskSync::ended_after(std::chrono::steady_clock::time_point time) {
    const LockGuard lock(mutex_);
    while (!end_ && ending_.wait_until(mutex_, time)) {
    }
    return end_;
}

std::string sync_folder(const std::string& path) {
    const int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) {
        return std::generic_category().message(errno);
    }
    const int error = ::syncfs(folder) == 0 ? 0 : errno;
    ::close(folder);
    return error == 0 ? std::string() : std::generic_category().message(error);
}

}  // namespace qv::node
