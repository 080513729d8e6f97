// What modules did with the host, in figures: tests check that nothing is left over.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qv::host {

struct Report {
    // What exists now.
    std::size_t modules_loaded = 0;
    std::size_t sessions_alive = 0;
    std::size_t read_locks_held = 0;
    std::size_t bugs_attached = 0;
    std::size_t bindings_alive = 0;
    std::size_t api_calls_inside = 0;
    std::size_t applications_inside = 0;

    // What has happened since the host started.
    std::uint64_t read_locks_taken = 0;
    std::uint64_t unlocks_without_lock = 0;
    std::uint64_t sessions_destroyed_locked = 0;  // destroyed while a read lock was held
    std::uint64_t bugs_added = 0;
    std::uint64_t bugs_refused = 0;  // INIT returned SWITCH_FALSE
    std::uint64_t bugs_pruned = 0;   // a later callback returned SWITCH_FALSE
    std::uint64_t bugs_closed = 0;   // got CLOSE, pruned ones included
    std::uint64_t frames_delivered = 0;
    std::uint64_t frames_altered = 0;  // changed by a bug
    std::uint64_t events_delivered = 0;
    std::uint64_t api_calls = 0;
};

}  // namespace qv::host
