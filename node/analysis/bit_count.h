// Counts the bits that are set in a word.
#pragma once

#include <cstdint>

namespace qv::node::analysis {

// How many bits are set. Both variants are part of their callers, so that the builtin becomes one
// instruction where the caller may use it.
template <bool BUILTIN>
[[gnu::always_inline]] inline int count_bits(std::uint64_t word) {
    if constexpr (BUILTIN) {
        return __builtin_popcountll(word);
    }
    word -= (word >> 1) & 0x5555555555555555u;
    word = (word & 0x3333333333333333u) + ((word >> 2) & 0x3333333333333333u);
    word = (word + (word >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
    return static_cast<int>((word * 0x0101010101010101u) >> 56);
}

}  // namespace qv::node::analysis
