// The media bugs of one session: adding, handing frames to them, pruning, closing.
//
// A bug gets INIT on the thread that adds it, the replace frames of its directions on the
// threads of these directions, and CLOSE once. A frame holds the bug lock shared; adding and
// closing hold it exclusively, so that no frame comes after CLOSE.
#pragma once

#include <switch.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/call.h"
#include "quorvane_lib/mutex.h"

// The frame that the current callback may ask for, and whether it has done so.
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
    std::size_t bugs = 0;   // bugs whose callback was called
    std::size_t given = 0;  // bugs that asked for the frame and got it
};

class MediaBugs {
  public:
    explicit MediaBugs(Session& session) : session_(session) {}

    // Sets `bug` to null unless it succeeds.
    switch_status_t add(const BugInfo& wanted, switch_media_bug_t** bug);

    bool any() const { return count_.load(std::memory_order_relaxed) > 0; }
    std::size_t count() const { return count_.load(); }
    std::vector<BugInfo> infos() const;

    // Hands the frame to every bug of this direction.
    Delivery deliver(Direction direction, switch_frame_t& frame);
    // Calls every bug with an event of any kind; false when a callback returned SWITCH_FALSE.
    bool raise(switch_abc_type_t type);

    // Calls every bug with CLOSE and removes it.
    void close_all();
    // While it exists, no bug is called. The bugs outlive it.
    class Pause {
      public:
        explicit Pause(MediaBugs& bugs) : bugs_(bugs), lock_(bugs.lock_) {}

        // Removes the bugs whose callback is unmapped, without CLOSE; returns their number.
        std::size_t drop_unmapped()
            QV_NO_THREAD_SAFETY_ANALYSIS;  // It cannot follow a lock that is a member.

      private:
        MediaBugs& bugs_;
        std::unique_lock<SharedMutex> lock_;
    };

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
    mutable SharedMutex lock_;
    std::vector<Bug> bugs_ QV_GUARDED_BY(lock_);
    std::atomic<std::size_t> count_{0};  // size of bugs_
};

}  // namespace qv::host
