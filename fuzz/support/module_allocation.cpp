#include "fuzz/support/module_allocation.h"

#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

std::atomic<const void*> object{nullptr};  // The base of the object whose allocations count.
unsigned left = 0;                         // Allocations that still succeed before one fails.
bool has_failed = false;

const void* object_of(const void* code) {
    Dl_info info{};
    return ::dladdr(code, &info) != 0 ? info.dli_fbase : nullptr;
}

void* allocate(std::size_t size, const void* caller) {
    const void* const counted = object;
    if (counted != nullptr && !has_failed && object_of(caller) == counted && left-- == 0) {
        has_failed = true;
        return nullptr;
    }
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace qv::fuzz {

void fail_allocation(unsigned number, const void* code) {
    left = number;
    has_failed = false;
    object = object_of(code);
}

bool stop_failing() {
    object = nullptr;
    return std::exchange(has_failed, false);
}

}  // namespace qv::fuzz

#define REPLACEMENT __attribute__((visibility("default"), noinline))

REPLACEMENT void* operator new(std::size_t size) {
    void* const memory = allocate(size, __builtin_return_address(0));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

REPLACEMENT void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(size, __builtin_return_address(0));
}

REPLACEMENT void operator delete(void* memory) noexcept {
    std::free(memory);
}

REPLACEMENT void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
