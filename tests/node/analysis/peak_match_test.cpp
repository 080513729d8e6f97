#include "node/analysis/peak_match.h"

#include <gtest/gtest.h>

namespace qv::node::analysis {

namespace {

constexpr std::uint8_t NONE = Fingerprint::NO_PEAK;
constexpr Fingerprint::Peaks NO_PEAKS{NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE};

using Matches = std::array<bool, Fingerprint::REGIONS>;
using Peaks = Fingerprint::Peaks;

struct PairMatches {
    Matches reference;
    Matches side;
};

// Which regions of a frame of the side and the reference match one of three frames of the other.
PairMatches matches(const std::array<Peaks, 3>& side, const std::array<Peaks, 3>& reference) {
    const PairBytes bytes = matching(pair_of(side[0], reference[0]), pair_of(side[1], reference[1]),
                                     pair_of(side[2], reference[2]));
    PairMatches matches{};
    for (std::size_t region = 0; region < Fingerprint::REGIONS; ++region) {
        const std::size_t second = region + Fingerprint::REGIONS;
        EXPECT_TRUE(bytes[region] == 0 || bytes[region] == 255);
        EXPECT_TRUE(bytes[second] == 0 || bytes[second] == 255);
        matches.reference[region] = bytes[region] != 0;
        matches.side[region] = bytes[second] != 0;
    }
    return matches;
}

constexpr Peaks PEAKS{0, 15, 32, 50, 70, 100, 130, 200};
constexpr std::array<Peaks, 3> OTHERS{{{1, NONE, NONE, NONE, NONE, 98, NONE, NONE},
                                       {NONE, 14, 34, NONE, NONE, NONE, 130, NONE},
                                       {NONE, NONE, NONE, 51, 68, NONE, NONE, 199}}};
constexpr Matches EXPECTED{true, true, false, true, false, false, true, true};

TEST(PeakMatchTest, PeaksOfAReferenceMatchWithinOneBinInAnyOfTheFrames) {
    EXPECT_EQ(matches(OTHERS, {NO_PEAKS, PEAKS, NO_PEAKS}).reference, EXPECTED);
}

TEST(PeakMatchTest, PeaksOfASideMatchWithinOneBinInAnyOfTheFrames) {
    EXPECT_EQ(matches({NO_PEAKS, PEAKS, NO_PEAKS}, OTHERS).side, EXPECTED);
}

TEST(PeakMatchTest, LowestAndHighestPeakMatchNoFrameWithoutPeaks) {
    const auto highest = static_cast<std::uint8_t>(Fingerprint::BINS - 1);
    const std::array<Peaks, 3> nothing{NO_PEAKS, NO_PEAKS, NO_PEAKS};
    const Peaks peaks{0, 1, 2, 0, 0, 0, highest, highest};
    EXPECT_EQ(matches(nothing, {NO_PEAKS, peaks, NO_PEAKS}).reference, Matches{});
    EXPECT_EQ(matches({NO_PEAKS, peaks, NO_PEAKS}, nothing).side, Matches{});
}

}  // namespace

}  // namespace qv::node::analysis
