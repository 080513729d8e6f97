#include "module/object_reference.h"

#include <dlfcn.h>

#include <new>
#include <utility>

// The C library's own way to have a function called at the end of the thread. It counts the
// function against the object in which `dso_symbol` lies.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the name is given.
extern "C" int __cxa_thread_atexit_impl(void (*function)(void*), void* argument, void* dso_symbol);

namespace qv::freeswitch {

namespace {

// Any address in this object.
const char here = 0;

// Has the C library call dlclose when this thread has left the object for good. A call of our
// own would return into code that may be gone.
void close_at_thread_end(void* handle) {
    void* const in_the_library = reinterpret_cast<void*>(&::dlclose);
    const auto close = reinterpret_cast<void (*)(void*)>(in_the_library);
    __cxa_thread_atexit_impl(close, handle, in_the_library);
}

}  // namespace

// Shared with the thread that waits: whoever comes last deletes it.
struct ObjectReference::Postponed {
    Mutex* owners_lock = nullptr;
    void* handle = nullptr;
    std::chrono::steady_clock::time_point due{};

    Mutex lock;
    Condition hurried;
    bool hurry QV_GUARDED_BY(lock) = false;     // The thread ends at once, and is waited for.
    bool detached QV_GUARDED_BY(lock) = false;  // The thread ends by itself.

    // Waits for the end of the delay, or to be hurried. True for the first.
    bool wait() {
        const LockGuard guard(lock);
        while (!hurry && hurried.wait_until(lock, due)) {
        }
        if (!hurry) {
            ::pthread_detach(::pthread_self());
            detached = true;
        }
        return detached;
    }
};

bool ObjectReference::take() {
    Dl_info self{};
    if (handle_ == nullptr && ::dladdr(&here, &self) != 0) {
        handle_ = ::dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    }
    return handle_ != nullptr;
}

void ObjectReference::give_back() {
    hurry_postponed();
    if (handle_ != nullptr) {
        ::dlclose(std::exchange(handle_, nullptr));
    }
}

void ObjectReference::give_back_after(std::chrono::milliseconds delay) {
    if (handle_ == nullptr) {
        return;
    }
    hurry_postponed();  // The reference that is held keeps the object.
    try {
        auto postponed = std::make_shared<Postponed>();
        postponed->owners_lock = &lock_;
        postponed->handle = handle_;
        postponed->due = std::chrono::steady_clock::now() + delay;
        auto argument = std::make_unique<std::shared_ptr<Postponed>>(postponed);
        if (::pthread_create(&thread_, nullptr, wait_and_leave, argument.get()) == 0) {
            static_cast<void>(argument.release());  // The thread's now.
            postponed_ = std::move(postponed);
            handle_ = nullptr;
        }
    } catch (const std::bad_alloc&) {  // As without a thread.
    }
}

void ObjectReference::hurry_postponed() {
    const std::shared_ptr<Postponed> postponed = std::exchange(postponed_, nullptr);
    if (postponed == nullptr) {
        return;
    }
    {
        const LockGuard guard(postponed->lock);
        if (postponed->detached) {
            return;
        }
        postponed->hurry = true;
    }
    postponed->hurried.notify_all();
    ::pthread_join(thread_, nullptr);
}

void* ObjectReference::wait_and_leave(void* argument) {
    const std::unique_ptr<std::shared_ptr<Postponed>> owned(
        static_cast<std::shared_ptr<Postponed>*>(argument));
    Postponed& postponed = **owned;
    if (postponed.wait()) {
        // What the threads that closed bugs have written comes before the object's end.
        const LockGuard closers(*postponed.owners_lock);
    }
    close_at_thread_end(postponed.handle);
    return nullptr;
}

}  // namespace qv::freeswitch
