#include "node/web/call_pool.h"

// Clang's way to say it.
#ifdef __has_feature
#define QV_HAS_FEATURE(feature) __has_feature(feature)
#else
#define QV_HAS_FEATURE(feature) 0
#endif

namespace qv::node::web {

CallPool& CallPool::instance() {
    static auto& instance = *new CallPool;
    return instance;
}

void* CallPool::do_allocate(std::size_t bytes, std::size_t alignment) {
    const LockGuard lock(mutex_);
    return memory().allocate(bytes, alignment);
}

void CallPool::do_deallocate(void* object, std::size_t bytes, std::size_t alignment) {
    const LockGuard lock(mutex_);
    memory().deallocate(object, bytes, alignment);
}

// The address sanitizer notices the use of an object that is gone only if it sees each object.
std::pmr::memory_resource& CallPool::memory() {
#if defined(__SANITIZE_ADDRESS__) || QV_HAS_FEATURE(address_sanitizer)
    return *std::pmr::new_delete_resource();
#else
    return pools_;
#endif
}

}  // namespace qv::node::web
