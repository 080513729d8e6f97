// Lets an allocation of the calling thread, or a large one of any thread, fail. Replaces operator
// new of the whole program: include it in one source of a test only.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace qv::tests {

// After so many more allocations of this thread, one fails. Negative: none.
inline thread_local int allocations_left = -1;

// So many allocations of at least LARGE bytes fail, in whatever thread.
constexpr std::size_t LARGE = 32'768;
inline std::atomic<int> large_failures{0};

// Calls `work` again and again. Each time, another one of its allocations fails, from the first one
// on, until it needs no more. `check` is called after each. Returns how many failed.
template <typename Work, typename Check>
int with_each_allocation_failing(Work work, Check check) {
    for (int failing = 0;; ++failing) {
        allocations_left = failing;
        try {
            work();
        } catch (const std::bad_alloc&) {
        }
        const bool failed = allocations_left < 0;
        allocations_left = -1;
        check(failed);
        if (!failed) {
            return failing;
        }
    }
}

}  // namespace qv::tests

void* operator new(std::size_t size) {
    using qv::tests::allocations_left;
    using qv::tests::large_failures;
    const bool fails = (allocations_left >= 0 && allocations_left-- == 0) ||
                       (size >= qv::tests::LARGE && large_failures > 0 && large_failures-- > 0);
    void* const memory = fails ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
// Without it, memory of the library's own operator would go to the operators below.
void* operator new(std::size_t size, const std::nothrow_t& /*nothrow*/) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
