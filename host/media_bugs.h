// The media bugs of one session: adding, handing frames to them, pruning, closing.
//
// A bug gets INIT on the thread that adds it, the replace frames of the directions it
// asked for on the thread of each direction, and CLOSE once. Frames hold the bug lock
// shared; adding and closing hold it alone, so that no frame comes after CLOSE.
#pragma once

#include <switch.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "host/call.h"

// The frame of the event being delivered, and whether the bug has asked for it and got it.
struct FrameOffer {
    switch_frame_t* frame = nullptr;
    bool given = false;
};

struct switch_media_bug {
    switch_core_session_t* session;
    std::string function;
    std::string target;
    switch_media_bug_callback_t callback;
    void* user_data;
    time_t stop_time;
    std::atomic<switch_media_bug_flag_t> flags;  // both directions may set SMBF_PRUNE
    FrameOffer read{};                           // the read direction's thread only
    FrameOffer write{};
};

namespace qv::host {

class Session;

// What became of a frame.
struct Delivery {
    std::size_t bugs = 0;   // that were told of it
    std::size_t given = 0;  // of these, that asked for it and got it
};

class MediaBugs {
  public:
    explicit MediaBugs(Session& session) : session_(session) {}

    // `bug` is null unless it was added.
    switch_status_t add(const BugInfo& wanted, switch_media_bug_t** bug);

    bool any() const { return count_.load(std::memory_order_relaxed) > 0; }
    std::size_t count() const { return count_.load(); }
    std::vector<BugInfo> infos() const;

    // Hands the frame to every bug of this direction.
    Delivery deliver(Direction direction, switch_frame_t& frame);
    // Hands any event to every bug; true when none of them refused.
    bool raise(switch_abc_type_t type);

    // CLOSE to all; what comes later finds no bug.
    void close_all();
    // While the lock is held no bug is called.
    std::unique_lock<std::shared_mutex> pause() { return std::unique_lock(lock_); }
    // Takes away, without a CLOSE, the bugs whose callback is in memory no more; the count.
    // Under pause().
    std::size_t drop_unmapped();

  private:
    using Bug = std::unique_ptr<switch_media_bug>;

    switch_media_bug_t* append(Bug bug);
    bool deliver_to(switch_media_bug& bug, Direction direction, switch_frame_t& frame);
    void mark(switch_media_bug& bug, switch_bool_t answer);
    void prune();
    void close(switch_media_bug& bug);
    void retire(Bug bug);
    Bug take_pruned();

    Session& session_;
    mutable std::shared_mutex lock_;  // guards bugs_
    std::vector<Bug> bugs_;
    std::atomic<std::size_t> count_{0};  // size of bugs_
};

}  // namespace qv::host
