// Faults of the host that a test switches on, one by one.
//
// Owned by EmbeddedHost. Every function may be called from any thread, also while
// calls run; a fault takes effect with the next call of the function that it concerns.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>

#include "quorvane_lib/mutex.h"

namespace qv::host {

enum class Fault : std::uint32_t {
    BIND_CHANNEL_DESTROY_FAILS = 1u << 0,  // switch_event_bind_removable for that event
    BIND_ALL_FAILS = 1u << 1,              // ... for SWITCH_EVENT_ALL
    NO_TIMETABLE = 1u << 2,                // switch_channel_get_timetable gives null
    MEDIA_NOT_READY = 1u << 3,             // switch_channel_test_ready with media gives 0
    BUG_REFUSED = 1u << 4,                 // switch_core_media_bug_add fails before INIT
    SESSION_NOT_FOUND = 1u << 5,           // switch_core_session_perform_locate gives null
    UUID_GARBAGE = 1u << 6,                // switch_core_session_get_uuid gives "not-a-uuid"
    OUT_OF_MEMORY = 1u << 7,               // bug_add, bind and serialize find no memory
    NULL_FRAME = 1u << 8,                  // the frame getters of a bug give null
    COMPLETION_FAILS = 1u << 9,            // switch_console_set_complete fails
    REFUSED_BUG_CLOSED = 1u << 10,         // a bug that refuses INIT gets a CLOSE as well
    BUG_LOST = 1u << 11,                   // switch_core_media_bug_add fails after INIT
};

class Faults {
  public:
    void set(Fault fault, bool on = true);
    bool on(Fault fault) const;

    // switch_event_get_header_idx no longer finds the header of this name.
    void hide_header(const std::string& name);
    bool hidden(const std::string& name) const;

    void clear();

  private:
    std::atomic<std::uint32_t> bits_{0};
    std::atomic<bool> hiding_{false};  // headers_ is not empty
    mutable Mutex lock_;
    std::set<std::string> headers_ QV_GUARDED_BY(lock_);
};

}  // namespace qv::host
