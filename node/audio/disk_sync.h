// Has what was written to a folder's file system brought to the disk every so often, so that a
// power cut takes no more than that.
//
// Works on a thread of its own, since the disk may take its time; nobody waits for it but the
// destructor.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "quorvane_lib/mutex.h"

namespace qv::node {

class DiskSync {
  public:
    // Brings all to the disk; returns why it could not, or nothing.
    using Work = std::function<std::string()>;

    // Begins at once; `work` runs on the thread, after each `interval`, and once more at the end.
    DiskSync(std::chrono::duration<double> interval, Work work);
    ~DiskSync();
    DiskSync(const DiskSync&) = delete;
    DiskSync& operator=(const DiskSync&) = delete;

    // The latest error that was not taken yet, or nothing. Any thread.
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
    std::thread thread_;  // Last: it uses the others.
};

// Writes the file system of that folder to the disk; returns why it could not, or nothing.
std::string sync_folder(const std::string& path);

}  // namespace qv::node
