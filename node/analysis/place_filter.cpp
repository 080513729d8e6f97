#include "node/analysis/place_filter.h"

#include <cstdint>
#include <cstring>

#include "node/analysis/bit_count.h"

namespace qv::node::analysis {

namespace {

constexpr int DIFFERENT_BIT = 2;

std::uint64_t word_of(const SampleIndex::BitsOfPair& bits) {
    std::uint64_t word = 0;
    std::memcpy(&word, bits.data(), sizeof word);
    return word;
}

template <bool BUILTIN>
[[gnu::always_inline]] inline std::size_t filter(const SampleIndex::Places& places,
                                                 const SampleIndex::BitsOfPair& side,
                                                 Alike* alike) {
    const std::uint64_t its = word_of(side);
    // Few places sound like the side. They are collected without branches, which would be predicted
    // wrongly.
    std::size_t count = 0;
    for (const SampleIndex::Place* each = places.begin; each != places.end; ++each) {
        const std::uint64_t mask = word_of(each->mask);
        const std::uint64_t different = (word_of(each->bits) ^ its) & mask;
        const int evidence =
            count_bits<BUILTIN>(mask) - DIFFERENT_BIT * count_bits<BUILTIN>(different);
        alike[count] = {each, evidence};
        count += evidence >= LEAST_EVIDENCE ? 1 : 0;
    }
    return count;
}

#ifdef __x86_64__
[[gnu::target("popcnt")]] std::size_t filter_places_with_popcnt(const SampleIndex::Places& places,
                                                                const SampleIndex::BitsOfPair& side,
                                                                Alike* alike) {
    return filter<true>(places, side, alike);
}
#endif

}  // namespace

std::size_t filter_places(const SampleIndex::Places& places, const SampleIndex::BitsOfPair& side,
                          Alike* alike) {
    return filter<false>(places, side, alike);
}

PlaceFilter fastest_place_filter() {
#ifdef __x86_64__
    if (__builtin_cpu_supports("popcnt")) {
        return filter_places_with_popcnt;
    }
#endif
    return filter_places;
}

}  // namespace qv::node::analysis
