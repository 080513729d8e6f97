// The media bugs that the host may still call, and what depends on them: the number of the
// socket's descriptor, and whether the object stays mapped.
//
// The host unloads a module although its bugs are attached, and it does not wait for the one
// that it is just closing. A bug counts from before the host gets to know it until its last
// event is over. One object, owned by the glue; any thread may call it. Its lock is taken last.
#pragma once

#include <chrono>
#include <thread>

#include "module/object_reference.h"
#include "quorvane_lib/mutex.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

class AttachedBugs {
  public:
    // `socket` outlives it.
    explicit AttachedBugs(net::Socket& socket) : socket_(socket) {}

    void add();
    // The end of the last event: nothing of the module may be used after it. After the last bug
    // of a module that is unloaded, the object goes away when the calling thread ends.
    void remove();

    // Open and close the socket beside bugs that send.
    bool open_socket();
    void close_socket();

    // The load has succeeded.
    void loaded();
    // The load has failed and leaves its hook in the host.
    void load_left_a_hook();
    // Whether the host may still call the module: it is loaded, or a bug or a hook is left.
    bool may_be_called();
    // The end of the shutdown. Waits a moment if another thread has just closed a bug.
    void unloaded();

  private:
    using Clock = std::chrono::steady_clock;

    void take_reference() QV_REQUIRES(lock_);
    void note_close() QV_REQUIRES(lock_);
    Clock::time_point last_close_by_others() const QV_REQUIRES(lock_);

    // Also held while the socket is opened and closed.
    Mutex lock_;

    net::Socket& socket_;
    int count_ QV_GUARDED_BY(lock_) = 0;
    bool loaded_ QV_GUARDED_BY(lock_) = false;
    bool hook_left_ QV_GUARDED_BY(lock_) = false;
    ObjectReference reference_ QV_GUARDED_BY(lock_);

    // When the last bug was closed, and by whom; and when somebody else last did.
    std::thread::id last_closer_ QV_GUARDED_BY(lock_);
    Clock::time_point last_close_ QV_GUARDED_BY(lock_){};
    Clock::time_point earlier_close_by_another_ QV_GUARDED_BY(lock_){};
};

}  // namespace qv::freeswitch
