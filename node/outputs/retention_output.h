// The removal of old recordings (--keep): looks at the folder once a minute, reports and counts
// what was removed, and frees the names of the files.
//
// Belongs to the thread of the program's event loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "node/audio/retention.h"
#include "node/report/notices.h"

namespace qv::node {

class RetentionOutput {
  public:
    using Clock = std::chrono::steady_clock;

    struct Names {
        // Returns the stems of calls whose files must stay.
        std::function<std::vector<std::string>()> present;
        // Receives the name, without folder, that a removed file had while it was written.
        std::function<void(const std::string& name)> forget;
    };

    // The notices must outlive this object.
    RetentionOutput(const Retention::Options& options, Names names, Notices& notices)
        : names_(std::move(names)), notices_(notices), retention_(options) {}

    // Reports what was removed, and begins a look at the folder if it is time. Call it once a
    // second.
    void update(Clock::time_point now);
    // Removes no further call, waits a few seconds for the removal at hand, and reports.
    void finish();

    std::uint64_t removed_calls() const { return removed_calls_; }
    // What they took on the disk.
    std::uint64_t removed_bytes() const { return removed_bytes_; }

  private:
    void report();

    const Names names_;
    Notices& notices_;
    Retention retention_;
    std::optional<Clock::time_point> began_;  // The latest look.
    std::uint64_t removed_calls_ = 0;
    std::uint64_t removed_bytes_ = 0;
};

}  // namespace qv::node
