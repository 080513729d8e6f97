// Compares the peaks of frames, all regions of the spectrum at once and without branches, because a
// search does little else. Plain functions; any thread may call them.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "node/analysis/fingerprint.h"

namespace qv::node::analysis {

// One byte for each region.
using RegionBytes = std::uint8_t __attribute__((vector_size(Fingerprint::REGIONS)));

inline RegionBytes all_regions(const std::array<std::uint8_t, Fingerprint::REGIONS>& values) {
    RegionBytes bytes;
    std::memcpy(&bytes, values.data(), sizeof bytes);
    return bytes;
}

// Returns 255 for each region whose peak is within one bin of the peak in one of three frames, and
// 0 for the others. What it returns for a region without a peak means nothing.
inline RegionBytes matching(const Fingerprint::Peaks& peaks, const Fingerprint::Peaks& before,
                            const Fingerprint::Peaks& now, const Fingerprint::Peaks& after) {
    // Bin 0 wraps: the bin below it is 255, which no frame has.
    static_assert(Fingerprint::BINS + 2 < Fingerprint::NO_PEAK && Fingerprint::NO_PEAK < 0xFF);
    const RegionBytes lowest = all_regions(peaks) - 1;
    return RegionBytes((all_regions(before) - lowest <= 2) | (all_regions(now) - lowest <= 2) |
                       (all_regions(after) - lowest <= 2));
}

}  // namespace qv::node::analysis
