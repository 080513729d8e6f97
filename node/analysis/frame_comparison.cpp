#include "node/analysis/frame_comparison.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstring>

#include "node/analysis/bit_count.h"
#include "node/analysis/peak_match.h"

namespace qv::node::analysis {

namespace {

// Bits count less than their probability alone suggests, because the bits of overlapping frames
// depend on each other.
constexpr int BIT_GAIN = 1;
constexpr int BIT_LOSS = 3;  // In addition to the gain that is missed.
// More than all losses of a region together.
constexpr std::uint8_t WEIGHT_OFFSET = 64;
constexpr int ALL_OFFSETS = WEIGHT_OFFSET * int{sizeof(PairBytes)};

[[gnu::always_inline]] inline int sum(PairBytes bytes) {
#ifdef __SSE2__
    __m128i vector;
    std::memcpy(&vector, &bytes, sizeof vector);
    const __m128i halves = _mm_sad_epu8(vector, _mm_setzero_si128());
    return _mm_cvtsi128_si32(halves) + _mm_extract_epi16(halves, 4);
#else
    int sum = 0;
    for (std::size_t i = 0; i < sizeof bytes; ++i) {
        sum += bytes[i];
    }
    return sum;
#endif
}

// How likely the peaks are: the sum of their gains and losses.
[[gnu::always_inline]] inline int peak_gain(const SampleIndex::Frame& expected,
                                            const HeardFrame& heard, PairBytes match) {
    // All weights are added up at once. The offset keeps each byte positive.
    const PairBytes weights = WEIGHT_OFFSET + (pair_of(expected.gains, {}) & match) -
                              (pair_of(expected.losses, heard.losses) & ~match);
    return sum(weights) - ALL_OFFSETS;
}

template <bool BUILTIN>
[[gnu::always_inline]] inline void compare(const HeardFrames& heard, const FramesBeside& both,
                                           Comparison* comparisons) {
    if (both.count == 0) {
        return;  // The frames below may not exist.
    }
    const auto peaks = [&](std::int64_t side, std::size_t reference) {
        return pair_of(heard[side].peaks, both.frames[reference].peaks);
    };
    std::int64_t number = both.first;
    std::size_t at = both.begin;
    PairBytes before = peaks(std::max(heard.oldest, number - 1), at == 0 ? 0 : at - 1);
    PairBytes now = peaks(number, at);
    for (Comparison* const end = comparisons + both.count; comparisons != end; ++comparisons) {
        const PairBytes after =
            peaks(std::min(heard.newest, number + 1), std::min(both.frames.size - 1, at + 1));
        const SampleIndex::Frame& expected = both.frames[at];
        const HeardFrame& side = heard[number];
        const int reliable = count_bits<BUILTIN>(expected.mask);
        const int different = count_bits<BUILTIN>((side.bits ^ expected.bits) & expected.mask);
        const int gain = BIT_GAIN * reliable - BIT_LOSS * different +
                         peak_gain(expected, side, matching(before, now, after));
        *comparisons = {static_cast<std::int16_t>(gain), static_cast<std::uint8_t>(reliable),
                        static_cast<std::uint8_t>(different)};
        before = now;
        now = after;
        ++number;
        ++at;
    }
}

#ifdef __x86_64__
[[gnu::target("popcnt")]] void compare_frames_with_popcnt(const HeardFrames& heard,
                                                          const FramesBeside& frames,
                                                          Comparison* comparisons) {
    compare<true>(heard, frames, comparisons);
}
#endif

}  // namespace

void compare_frames(const HeardFrames& heard, const FramesBeside& frames, Comparison* comparisons) {
    compare<false>(heard, frames, comparisons);
}

FrameComparison fastest_frame_comparison() {
#ifdef __x86_64__
    if (__builtin_cpu_supports("popcnt")) {
        return compare_frames_with_popcnt;
    }
#endif
    return compare_frames;
}

}  // namespace qv::node::analysis
