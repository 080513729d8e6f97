// Loads memory into the cache before it is needed.
#pragma once

namespace qv::node::analysis {

// Loads the line of the cache that holds this address, which need not be valid.
inline void prefetch_line(const void* address) {
    __builtin_prefetch(address);
    // GCC removes calls of functions that have no other effect.
    asm volatile("");
}

}  // namespace qv::node::analysis
