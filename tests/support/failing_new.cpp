#include "tests/support/failing_new.h"

#include <atomic>
#include <limits>
#include <new>

namespace {

constexpr std::size_t NONE_FAILS = std::numeric_limits<std::size_t>::max();
std::atomic<std::size_t> smallest_failing{NONE_FAILS};

}  // namespace

namespace qv::tests {

NoMemory::NoMemory(std::size_t size) {
    smallest_failing = size;
}

NoMemory::~NoMemory() {
    smallest_failing = NONE_FAILS;
}

}  // namespace qv::tests

// The usual operator new gives the memory, so that the usual operator delete takes it.
__attribute__((visibility("default"))) void* operator new(std::size_t size,
                                                          const std::nothrow_t&) noexcept {
    if (size >= smallest_failing) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
