// A reference of the dynamic linker to the module's own shared object. It keeps the object
// mapped after the host has closed it.
//
// Owned by AttachedBugs; every function is called under its lock.
#pragma once

#include <pthread.h>

namespace qv::freeswitch {

class ObjectReference {
  public:
    ObjectReference();
    // The object goes away, or the process ends.
    ~ObjectReference();
    ObjectReference(const ObjectReference&) = delete;
    ObjectReference& operator=(const ObjectReference&) = delete;

    // False when the linker gives none. Harmless when the reference is held already.
    bool take();

    // Gives the reference back at once, and the one that this thread has yet to give back at
    // its end. The host's own reference must keep the object mapped until this thread has left
    // it.
    void give_back();

    // Gives the reference back when the calling thread ends, as the last one, too: the object
    // then goes away. Where the C library has no room for that, the reference is held on to.
    void give_back_at_thread_end();

  private:
    void* postponed_by_this_thread() const;

    void* handle_ = nullptr;
    // What a thread has to close when it ends: the handle of the reference that it gives back.
    pthread_key_t at_thread_end_{};
    bool has_key_;
};

}  // namespace qv::freeswitch
