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

// Allocates with the usual operators new, so that the usual operators delete can free the memory.
template <typename... Alignment>
static void* allocate(std::size_t size, Alignment... alignment) noexcept {
    if (size >= smallest_failing) {
        return nullptr;
    }
    try {
        return ::operator new(size, alignment...);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

#define REPLACEMENT __attribute__((visibility("default")))

REPLACEMENT void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(size);
}

REPLACEMENT void* operator new(std::size_t size, std::align_val_t alignment,
                               const std::nothrow_t& /*tag*/) noexcept {
    return allocate(size, alignment);
}
