// The memory of what the page keeps for each call. It is separate from all other memory. Otherwise
// it would lie between the objects that a call needs for each packet, and spread them over more
// pages of memory than the processor can find quickly. With a thousand calls, each packet would
// take longer.
//
// Memory that is given back is kept for later calls. Any thread may call it.
#pragma once

#include <memory_resource>

#include "quorvane_lib/mutex.h"

namespace qv::node::web {

class CallPool : public std::pmr::memory_resource {
  public:
    // The one of the program. It is never destroyed, so an object in it may live as long as it
    // likes.
    static CallPool& instance();

  private:
    CallPool() = default;

    void* do_allocate(std::size_t bytes, std::size_t alignment) override QV_EXCLUDES(mutex_);
    void do_deallocate(void* object, std::size_t bytes, std::size_t alignment) override
        QV_EXCLUDES(mutex_);
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
        return this == &other;
    }

    std::pmr::memory_resource& memory() QV_REQUIRES(mutex_);

    // At most so many objects at once, and the size of the largest.
    static constexpr std::pmr::pool_options OBJECTS{256, 16384};

    Mutex mutex_;
    std::pmr::unsynchronized_pool_resource pools_ QV_GUARDED_BY(mutex_){OBJECTS};
};

}  // namespace qv::node::web
