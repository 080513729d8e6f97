// Removes the files of the oldest finished calls from the folder, as --keep says.
//
// It removes only files with names that this program gives to the files of a call, with its UUID,
// and only the files of whole calls: audio, timeline and sidecar of one stem. It never removes
//   - files of a call that goes on in this program or in another one that shares the folder,
//   - files of a call whose files are younger than ten minutes or come from the future,
//   - anything through a symbolic link.
// If the clock has jumped, or if no call of the last day is in the folder, the clock cannot be
// trusted: nothing is removed by age for a day.
//
// A call that cannot be removed is tried again with each look. While it is there, no newer call is
// removed by size in its place.
//
// The work is done on a thread of its own. The public functions belong to the owner's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "node/audio/keep_limits.h"
#include "node/audio/task_thread.h"
#include "node/calls/types.h"

namespace qv::node {

// A call whose files were removed.
struct RemovedCall {
    std::string stem;
    std::vector<std::string> files;  // Names without folder.
    std::uint64_t bytes = 0;         // What the files took on the disk.
    bool by_age = false;             // Otherwise by size.
    std::string error;               // Why the other files of the call are still there.
};

// What a look at the folder led to.
struct RetentionResult {
    std::vector<RemovedCall> removed;
    std::string distrust;  // Why nothing is removed by age. Told once.
};

// Removes the file of that name from the open folder. Returns 0 or the error number.
int remove_from_folder(int folder, const char* name);

class Retention {
  public:
    using Remove = std::function<int(int folder, const char* name)>;

    struct Options {
        std::string folder;
        std::string pattern = "{uuid}";  // Of file names; it has the UUID.
        KeepLimits limits;
        // The present time since 1970, and the time since the machine was started.
        std::function<Micros()> wall_clock;
        std::function<Micros()> uptime;
        Remove remove = remove_from_folder;
    };

    explicit Retention(const Options& options);
    // Removes no further call, and does not wait.
    ~Retention();
    Retention(const Retention&) = delete;
    Retention& operator=(const Retention&) = delete;

    // Begins a look at the folder, unless one goes on. Nothing is removed of calls with these
    // stems.
    void begin(std::vector<std::string> present_stems);
    // Returns what has been done since the latest call of this function.
    RetentionResult take();
    // Removes no further call, and waits until the time has come for the removal at hand.
    void end(std::chrono::steady_clock::time_point until);
    // For tests: waits until the folder has been looked at.
    bool wait(std::chrono::steady_clock::time_point until) { return tasks_.wait(until); }

  private:
    class Work;

    std::shared_ptr<Work> work_;
    TaskThread tasks_;
};

}  // namespace qv::node
