// Flushes the file system of a folder to the disk at regular intervals, so that a power cut loses
// no more than one interval.
//
// The work runs on a thread of its own because the disk may be slow. Only the destructor waits for
// it.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "quorvane_lib/mutex.h"

namespace qv::node {

class DiskSync {
  public:
    // Flushes. Returns why it failed, or an empty text.
    using Work = std::function<std::string()>;

    // Begins at once. `work` runs on the thread after each `interval`, and once more at the end.
    DiskSync(std::chrono::duration<double> interval, Work work);
    ~DiskSync();
    DiskSync(const DiskSync&) = delete;
    DiskSync& operator=(const DiskSync&) = delete;

    // Returns the latest error that was not taken yet, or an empty text. Any thread may call it.
    std::string take_error() QV_EXCLUDES(mutex_);

  private:
    void run() QV_EXCLUDES(mutex_);
    bool ended_after(std::chrono::steady_clock::time_point time) QV_EXCLUDES(mutex_);

    const std::chrono::steady_clock::duration interval_;
    const Work work_;
    Mutex mutex_;
    Condition ending_;
    bool end_ QV_GUARDED_BY(mutex_) = false;
    std::string error_ QV_GUARDED_BY(mutex_);
    std::thread thread_;  // The last member, because the thread uses the others.
};

// Flushes the file system of that folder to the disk. Returns why it failed, or an empty text.
std::string sync_folder(const std::string& path);

}  // namespace qv::node
