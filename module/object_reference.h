// A dynamic linker's reference to the module's own shared object. It keeps the object mapped
// after the host has closed it.
//
// AttachedBugs owns it and calls every function under its lock.
#pragma once

#include <pthread.h>

namespace qv::freeswitch {

class ObjectReference {
  public:
    ObjectReference();
    // Runs when the shared object is unmapped or the process ends.
    ~ObjectReference();
    ObjectReference(const ObjectReference&) = delete;
    ObjectReference& operator=(const ObjectReference&) = delete;

    // Takes the reference unless it is held already. False if the linker refuses it.
    bool take();

    // Returns the reference at once, and also the one that this thread would return at its end.
    // The host's own reference must keep the object mapped until this thread has left it.
    void give_back();

    // Returns the reference when the calling thread ends. If it is the last one, the object is
    // then unmapped. If the C library cannot store it for the thread, the reference is kept.
    void give_back_at_thread_end();

  private:
    void* postponed_by_this_thread() const;

    void* handle_ = nullptr;
    // A thread's value is the handle that the C library closes when the thread ends.
    pthread_key_t at_thread_end_{};
    bool has_key_;
};

}  // namespace qv::freeswitch
