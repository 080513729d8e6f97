#include "node/web/call_pool.h"

#include "quorvane_lib/sanitizer.h"

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
    if constexpr (ADDRESS_SANITIZER) {
        return *std::pmr::new_delete_resource();
    }
    return pools_;
}

}  // namespace qv::node::web
