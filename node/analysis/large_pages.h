// An allocator for arrays that are read at random and are much larger than the caches. It asks the
// system for large pages of memory. With pages of the usual size, the processor spends much of its
// time on looking up where they are.
//
// Without state; any thread may use it.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <limits>
#include <new>
#include <vector>

namespace qv::node::analysis {

template <class T>
struct LargePages {
    using value_type = T;  // NOLINT(readability-identifier-naming): the library wants this name.

    static constexpr std::size_t PAGE = std::size_t{2} << 20;  // Smaller arrays are left alone.

    LargePages() = default;
    template <class U>
    LargePages(const LargePages<U>& /*other*/) {}  // NOLINT(google-explicit-constructor)

    T* allocate(std::size_t count) {
        if (count > (std::numeric_limits<std::size_t>::max() - PAGE) / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        const std::size_t size = count * sizeof(T);
        if (size < PAGE) {
            return static_cast<T*>(::operator new(size));
        }
        const std::size_t whole = (size + PAGE - 1) / PAGE * PAGE;
        void* const memory = ::operator new (whole, std::align_val_t{PAGE});
        // Without large pages it is slower, but works.
        static_cast<void>(madvise(memory, whole, MADV_HUGEPAGE));
        return static_cast<T*>(memory);
    }
    void deallocate(T* memory, std::size_t count) {
        if (count * sizeof(T) < PAGE) {
            ::operator delete(memory);
        } else {
            ::operator delete (memory, std::align_val_t{PAGE});
        }
    }

    bool operator==(const LargePages& /*other*/) const { return true; }
    bool operator!=(const LargePages& /*other*/) const { return false; }
};

template <class T>
using LargeVector = std::vector<T, LargePages<T>>;

}  // namespace qv::node::analysis
