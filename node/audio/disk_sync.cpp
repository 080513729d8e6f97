#include "node/audio/disk_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "quorvane_lib/mutex.h"
#include "tools/thread_priority.h"

namespace qv::node {

struct DiskSync::Shared {
    Shared(std::chrono::duration<double> between, Work flush)
        : interval(std::chrono::duration_cast<std::chrono::steady_clock::duration>(between)),
          work(std::move(flush)) {}

    void run() QV_EXCLUDES(mutex);
    bool last_after(std::chrono::steady_clock::time_point time) QV_EXCLUDES(mutex);
    void done(const std::string& result, bool last) QV_EXCLUDES(mutex);

    const std::chrono::steady_clock::duration interval;
    const Work work;
    Mutex mutex;
    Condition ending;
    Condition ended;
    bool last_wanted QV_GUARDED_BY(mutex) = false;
    bool over QV_GUARDED_BY(mutex) = false;
    std::string error QV_GUARDED_BY(mutex);
};

void DiskSync::Shared::run() {
    tools::lower_priority(tools::Priority::BACKGROUND);
    bool last = false;
    while (!last) {
        last = last_after(std::chrono::steady_clock::now() + interval);
        done(work(), last);
    }
}

// Waits until that time. Returns true if the last round is wanted first.
bool DiskSync::Shared::last_after(std::chrono::steady_clock::time_point time) {
    const LockGuard lock(mutex);
    while (!last_wanted && ending.wait_until(mutex, time)) {
    }
    return last_wanted;
}

void DiskSync::Shared::done(const std::string& result, bool last) {
    const LockGuard lock(mutex);
    if (!result.empty()) {
        error = result;
    }
    over = last;
    ended.notify_one();
}

DiskSync::DiskSync(std::chrono::duration<double> interval, Work work)
    : shared_(std::make_shared<Shared>(interval, std::move(work))),
      thread_([shared = shared_] { shared->run(); }) {}

DiskSync::~DiskSync() {
    if (finish(std::chrono::steady_clock::now())) {
        thread_.join();
    } else {
        thread_.detach();
    }
}

bool DiskSync::finish(std::chrono::steady_clock::time_point until) {
    const LockGuard lock(shared_->mutex);
    shared_->last_wanted = true;
    shared_->ending.notify_one();
    while (!shared_->over && shared_->ended.wait_until(shared_->mutex, until)) {
    }
    return shared_->over;
}

std::string DiskSync::take_error() {
    const LockGuard lock(shared_->mutex);
    return std::exchange(shared_->error, {});
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
