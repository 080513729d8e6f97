#include "node/web/call_memory.h"

namespace qv::node::web {

CallMemory& CallMemory::instance() {
    static auto& instance = *new CallMemory;
    return instance;
}

void* CallMemory::do_allocate(std::size_t bytes, std::size_t alignment) {
    const LockGuard lock(mutex_);
    return memory().allocate(bytes, alignment);
}

void CallMemory::do_deallocate(void* object, std::size_t bytes, std::size_t alignment) {
    const LockGuard lock(mutex_);
    memory().deallocate(object, bytes, alignment);
}

// The address sanitizer notices the use of an object that is gone only if it sees each object.
std::pmr::memory_resource& CallMemory::memory() {
#ifdef __SANITIZE_ADDRESS__
    return *std::pmr::new_delete_resource();
#else
    return pools_;
#endif
}

}  // namespace qv::node::web
