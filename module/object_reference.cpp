#include "module/object_reference.h"

#include <dlfcn.h>

#include <utility>

namespace qv::freeswitch {

namespace {

// Its address identifies this shared object.
const char ANCHOR = 0;

// The C library calls dlclose directly at the end of the thread. A function of our own would
// return from dlclose into code that may be unmapped.
using Close = void (*)(void*);
Close close_function() {
    return reinterpret_cast<Close>(reinterpret_cast<void*>(&::dlclose));
}

}  // namespace

ObjectReference::ObjectReference()
    : has_key_(::pthread_key_create(&at_thread_end_, close_function()) == 0) {}

ObjectReference::~ObjectReference() {
    if (has_key_) {
        ::pthread_key_delete(at_thread_end_);
    }
}

bool ObjectReference::take() {
    Dl_info self{};
    if (handle_ == nullptr && ::dladdr(&ANCHOR, &self) != 0) {
        handle_ = ::dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    }
    return handle_ != nullptr;
}

void ObjectReference::give_back() {
    if (handle_ != nullptr) {
        ::dlclose(std::exchange(handle_, nullptr));
    }
    if (void* const postponed = postponed_by_this_thread()) {
        ::pthread_setspecific(at_thread_end_, nullptr);
        ::dlclose(postponed);
    }
}

void ObjectReference::give_back_at_thread_end() {
    if (handle_ == nullptr || !has_key_) {
        return;
    }
    if (postponed_by_this_thread() != nullptr) {
        // One reference is enough to keep the object mapped until the thread ends.
        ::dlclose(std::exchange(handle_, nullptr));
    } else if (::pthread_setspecific(at_thread_end_, handle_) == 0) {
        handle_ = nullptr;
    }
}

void* ObjectReference::postponed_by_this_thread() const {
    return has_key_ ? ::pthread_getspecific(at_thread_end_) : nullptr;
}

}  // namespace qv::freeswitch
