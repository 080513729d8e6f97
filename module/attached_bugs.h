// Counts the media bugs that the host may still call. As long as there are any, the socket's
// descriptor number stays reserved and the module's shared object stays mapped.
//
// The host unloads a module even while its bugs are attached, and does not wait for a bug
// that is closing. A bug is therefore counted from just before it is passed to the host
// until its last event has been handled. There is one object, owned by mod_quorvane.cpp; any
// thread may call it. Its lock is taken after all others.
#pragma once

#include <chrono>
#include <thread>

#include "module/object_reference.h"
#include "quorvane_lib/mutex.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

class AttachedBugs {
  public:
    // `socket` must outlive this object.
    explicit AttachedBugs(net::Socket& socket) : socket_(socket) {}

    void add();
    // Call it at the end of a bug's last event; the caller must not use anything of the module
    // afterwards. After the last bug of an unloaded module, the shared object is unmapped when
    // the calling thread ends.
    void remove();

    // Open and close the socket, safely while bugs send.
    bool open_socket();
    void close_socket();

    // The load has succeeded.
    void loaded();
    // The load has failed, but its event hook is still bound in the host.
    void load_left_a_hook();
    // Whether the host may still call the module: it is loaded, or a bug or a hook is left.
    bool may_be_called();
    // Call it at the end of the shutdown. Waits up to 100 ms if another thread has just closed
    // a bug.
    void unloaded();

  private:
    using Clock = std::chrono::steady_clock;

    void take_reference() QV_REQUIRES(lock_);
    void note_close() QV_REQUIRES(lock_);
    Clock::time_point last_close_by_others() const QV_REQUIRES(lock_);

    Mutex lock_;

    net::Socket& socket_ QV_GUARDED_BY(lock_);  // Senders have references of their own.
    int count_ QV_GUARDED_BY(lock_) = 0;
    bool loaded_ QV_GUARDED_BY(lock_) = false;
    bool hook_left_ QV_GUARDED_BY(lock_) = false;
    ObjectReference reference_ QV_GUARDED_BY(lock_);

    // Which thread closed the last bug and when, and when another thread last closed one.
    std::thread::id last_closer_ QV_GUARDED_BY(lock_);
    Clock::time_point last_close_ QV_GUARDED_BY(lock_){};
    Clock::time_point earlier_close_by_another_ QV_GUARDED_BY(lock_){};
};

}  // namespace qv::freeswitch
