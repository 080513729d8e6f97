// A reference of the dynamic linker to the module's own shared object. It keeps the object
// mapped after the host has closed it.
//
// Owned by AttachedBugs; every function is called under its lock. Nothing is given back when it
// is destroyed: that happens when the object goes away, or the process.
#pragma once

#include <pthread.h>

#include <chrono>
#include <memory>

#include "quorvane_lib/mutex.h"

namespace qv::freeswitch {

class ObjectReference {
  public:
    // `lock` is the owner's.
    explicit ObjectReference(Mutex& lock) : lock_(lock) {}

    // False when the linker gives none. Harmless when the reference is held already.
    bool take();

    // Gives the reference back, and waits for one whose return is postponed. The host's own
    // reference must keep the object mapped meanwhile.
    void give_back();

    // Gives the reference back after `delay`, as the last one, too: the object then goes away.
    // Without a thread for it the reference is held on to.
    void give_back_after(std::chrono::milliseconds delay);

  private:
    struct Postponed;

    static void* wait_and_leave(void* postponed);
    void hurry_postponed();

    Mutex& lock_;
    void* handle_ = nullptr;
    std::shared_ptr<Postponed> postponed_;  // Null unless a return has been postponed.
    pthread_t thread_{};                    // Of `postponed_`.
};

}  // namespace qv::freeswitch
