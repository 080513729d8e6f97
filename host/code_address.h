// Finds the loaded object that a piece of code belongs to. Any thread may call it.
#pragma once

#include <dlfcn.h>

#include <cstring>

namespace qv::host {

// The address of a function as data, which POSIX allows and C++ leaves open.
template <typename Function>
const void* code_address(Function* function) {
    const void* address = nullptr;
    static_assert(sizeof(address) == sizeof(function));
    std::memcpy(&address, &function, sizeof(address));
    return address;
}

// The base of the loaded object that holds this address; null when no object does.
inline const void* object_base(const void* address) {
    Dl_info info{};
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

}  // namespace qv::host
