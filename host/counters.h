// The host's counters, which EmbeddedHost::report copies. Any thread may use them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qv::host {

struct Counters {
    std::atomic<std::size_t> read_locks_held{0};
    std::atomic<std::size_t> bugs_attached{0};
    std::atomic<std::size_t> api_calls_inside{0};
    std::atomic<std::size_t> applications_inside{0};

    std::atomic<std::uint64_t> read_locks_taken{0};
    std::atomic<std::uint64_t> unlocks_without_lock{0};
    std::atomic<std::uint64_t> sessions_destroyed_locked{0};
    std::atomic<std::uint64_t> bugs_added{0};
    std::atomic<std::uint64_t> bugs_refused{0};
    std::atomic<std::uint64_t> bugs_pruned{0};
    std::atomic<std::uint64_t> bugs_closed{0};
    std::atomic<std::uint64_t> frames_delivered{0};
    std::atomic<std::uint64_t> frames_altered{0};
    std::atomic<std::uint64_t> api_calls{0};
};

// Adds one for as long as it lives.
class Inside {
  public:
    explicit Inside(std::atomic<std::size_t>& counter) : counter_(counter) { ++counter_; }
    ~Inside() { --counter_; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

  private:
    std::atomic<std::size_t>& counter_;
};

}  // namespace qv::host
