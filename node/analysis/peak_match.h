// Compares the peaks of two frames, all regions of the spectrum at once and without branches,
// because a search does little else. Plain functions; any thread may call them.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "node/analysis/fingerprint.h"

namespace qv::node::analysis {

// One byte for each region of a frame of a side, and then of a frame of a reference.
using PairBytes = std::uint8_t __attribute__((vector_size(2 * Fingerprint::REGIONS)));
using RegionValues = std::array<std::uint8_t, Fingerprint::REGIONS>;

inline PairBytes pair_of(const RegionValues& side, const RegionValues& reference) {
    // Made of two words: the processor would wait if it wrote bytes to memory to read them at once.
    using Words = std::uint64_t __attribute__((vector_size(sizeof(PairBytes))));
    std::array<std::uint64_t, 2> words;
    std::memcpy(&words[0], side.data(), sizeof words[0]);
    std::memcpy(&words[1], reference.data(), sizeof words[1]);
    return PairBytes(Words{words[0], words[1]});
}

// Compares the peaks of the frames `now` of the side and the reference. The first half of the
// result is about the peaks of the reference, the second half about those of the side. It is 255
// for each region whose peak is within one bin of the other one's peak in one of three frames, and
// 0 for the others. What it is for a region without a peak means nothing.
inline PairBytes matching(PairBytes before, PairBytes now, PairBytes after) {
    static_assert(Fingerprint::REGIONS == 8);
    // Bin 0 wraps: the bin below it is 255, which no frame has.
    static_assert(Fingerprint::BINS + 2 < Fingerprint::NO_PEAK && Fingerprint::NO_PEAK < 0xFF);
    const PairBytes lowest =
        __builtin_shufflevector(now, now, 8, 9, 10, 11, 12, 13, 14, 15, 0, 1, 2, 3, 4, 5, 6, 7) - 1;
    return PairBytes((before - lowest <= 2) | (now - lowest <= 2) | (after - lowest <= 2));
}

}  // namespace qv::node::analysis
