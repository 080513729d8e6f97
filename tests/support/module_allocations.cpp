#include "tests/support/module_allocations.h"

#include <dlfcn.h>
#include <link.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

#include "quorvane_lib/mutex.h"

namespace {

constexpr std::size_t NONE = std::numeric_limits<std::size_t>::max();

struct Range {
    std::uintptr_t first = 0;
    std::uintptr_t end = 0;
    bool holds(std::uintptr_t address) const { return address >= first && address < end; }
};

Range watched;
Range cxx_library;
std::atomic<bool> armed{false};
std::atomic<std::size_t> made{0};
std::atomic<std::size_t> failing{NONE};

struct Search {
    std::uintptr_t address;
    Range found;
};

int keep_object(dl_phdr_info* info, std::size_t /*size*/, void* data) {
    auto* search = static_cast<Search*>(data);
    Range object{std::numeric_limits<std::uintptr_t>::max(), 0};
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& header = info->dlpi_phdr[i];
        if (header.p_type == PT_LOAD) {
            const std::uintptr_t first = info->dlpi_addr + header.p_vaddr;
            object.first = first < object.first ? first : object.first;
            object.end = first + header.p_memsz > object.end ? first + header.p_memsz : object.end;
        }
    }
    if (object.holds(search->address)) {
        search->found = object;
        return 1;
    }
    return 0;
}

Range object_of(const void* address) {
    Search search{reinterpret_cast<std::uintptr_t>(address), {}};
    ::dl_iterate_phdr(keep_object, &search);
    return search.found;
}

struct Walk {
    std::uintptr_t caller;  // The caller of operator new, where the walk begins.
    bool begun = false;
    bool module_called = false;
};

_Unwind_Reason_Code look_at_frame(_Unwind_Context* context, void* data) {
    auto* walk = static_cast<Walk*>(data);
    const std::uintptr_t address = _Unwind_GetIP(context);
    walk->begun = walk->begun || address == walk->caller;
    if (!walk->begun || cxx_library.holds(address)) {
        return _URC_NO_REASON;
    }
    walk->module_called = watched.holds(address);
    return _URC_END_OF_STACK;
}

bool called_by_module(const void* caller) {
    Walk walk{reinterpret_cast<std::uintptr_t>(caller)};
    _Unwind_Backtrace(look_at_frame, &walk);
    return walk.module_called;
}

// The module's allocations that have not been freed. A fixed array, because it must not allocate.
class Kept {
  public:
    void add(void* memory) {
        const qv::LockGuard guard(mutex_);
        *std::find(memory_.begin(), memory_.end(), nullptr) = memory;
        ++count_;
    }
    void drop(void* memory) {
        if (memory == nullptr || count_.load(std::memory_order_relaxed) == 0) {
            return;
        }
        const qv::LockGuard guard(mutex_);
        const auto found = std::find(memory_.begin(), memory_.end(), memory);
        if (found != memory_.end()) {
            *found = nullptr;
            --count_;
        }
    }
    std::size_t count() const { return count_; }

  private:
    qv::Mutex mutex_;
    std::array<void*, 4096> memory_ QV_GUARDED_BY(mutex_){};  // Its last element stays null.
    std::atomic<std::size_t> count_{0};
};

Kept kept;

void* allocate(std::size_t size) {
    return std::malloc(size == 0 ? 1 : size);
}

void* allocate(std::size_t size, std::align_val_t alignment) {
    void* memory = nullptr;
    return ::posix_memalign(&memory, static_cast<std::size_t>(alignment), size) == 0 ? memory
                                                                                     : nullptr;
}

// Allocates for the caller of operator new, unless this is the allocation that must fail.
template <typename... Arguments>
void* serve(const void* caller, Arguments... arguments) {
    if (!armed.load(std::memory_order_relaxed) || !called_by_module(caller)) {
        return allocate(arguments...);
    }
    if (made.fetch_add(1) == failing.load()) {
        return nullptr;
    }
    void* const memory = allocate(arguments...);
    kept.add(memory);
    return memory;
}

void release(void* memory) {
    kept.drop(memory);
    std::free(memory);
}

}  // namespace

namespace qv::tests {

void watch_object(const void* address) {
    watched = object_of(address);
    cxx_library = object_of(::dlsym(RTLD_DEFAULT, "__cxa_throw"));
}

void fail_allocation(std::size_t index) {
    made = 0;
    failing = index;
    armed = true;
}

std::size_t stop_failing() {
    armed = false;
    failing = NONE;
    return made;
}

std::size_t allocations_kept() {
    return kept.count();
}

}  // namespace qv::tests

#define REPLACEMENT __attribute__((visibility("default"), noinline))

REPLACEMENT void* operator new(std::size_t size) {
    void* memory = serve(__builtin_return_address(0), size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

REPLACEMENT void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return serve(__builtin_return_address(0), size);
}

REPLACEMENT void* operator new(std::size_t size, std::align_val_t alignment,
                               const std::nothrow_t& /*tag*/) noexcept {
    return serve(__builtin_return_address(0), size, alignment);
}

REPLACEMENT void operator delete(void* memory) noexcept {
    release(memory);
}
REPLACEMENT void operator delete(void* memory, std::size_t /*size*/) noexcept {
    release(memory);
}
REPLACEMENT void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept {
    release(memory);
}
REPLACEMENT void operator delete(void* memory, std::size_t /*size*/,
                                 std::align_val_t /*alignment*/) noexcept {
    release(memory);
}
