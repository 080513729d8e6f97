// A shared object with one ObjectReference, for object_reference_test.cpp.
#include "module/object_reference.h"

namespace {

qv::freeswitch::ObjectReference reference;

}  // namespace

extern "C" {

__attribute__((visibility("default"))) bool probe_take() {
    return reference.take();
}

__attribute__((visibility("default"))) void probe_give_back() {
    reference.give_back();
}

__attribute__((visibility("default"))) void probe_give_back_at_thread_end() {
    reference.give_back_at_thread_end();
}
}
