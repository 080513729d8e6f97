// Flushes the file system of a folder to the disk at regular intervals, so that a power cut loses
// no more than one interval.
//
// The work runs on a thread of its own because the disk may be slow. Nobody has to wait for it: if
// the disk does not come back before the end, the thread is left behind and owns all that it still
// uses.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace qv::node {

class DiskSync {
  public:
    // Flushes. Returns why it failed, or an empty text. Everything that it uses must outlive the
    // thread, so it is best a copy.
    using Work = std::function<std::string()>;

    // Begins at once. `work` runs on the thread after each `interval`, and once more at the end.
    DiskSync(std::chrono::duration<double> interval, Work work);
    // Does not wait; see finish().
    ~DiskSync();
    DiskSync(const DiskSync&) = delete;
    DiskSync& operator=(const DiskSync&) = delete;

    // Has the work run for the last time. Waits for its end until the time has come. Returns
    // whether it has ended. May be called again.
    bool finish(std::chrono::steady_clock::time_point until);

    // Returns the latest error that was not taken yet, or an empty text.
    std::string take_error();

  private:
    struct Shared;

    const std::shared_ptr<Shared> shared_;
    std::thread thread_;
};

// Flushes the file system of that folder to the disk. Returns why it failed, or an empty text.
std::string sync_folder(const std::string& path);

}  // namespace qv::node
