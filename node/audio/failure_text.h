// What is reported of an exception.
#pragma once

#include <exception>
#include <new>
#include <string>

namespace qv::node {

// Does not throw: when memory is short, a long text could not be copied.
inline std::string failure_text(const std::exception& failure) noexcept {
    constexpr const char* no_memory = "no memory";
    try {
        return dynamic_cast<const std::bad_alloc*>(&failure) != nullptr ? no_memory
                                                                        : failure.what();
    } catch (const std::exception&) {
        return no_memory;
    }
}

}  // namespace qv::node
