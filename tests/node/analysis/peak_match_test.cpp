#include "node/analysis/peak_match.h"

#include <gtest/gtest.h>

namespace qv::node::analysis {

namespace {

constexpr std::uint8_t NONE = Fingerprint::NO_PEAK;
constexpr Fingerprint::Peaks NO_PEAKS{NONE, NONE, NONE, NONE, NONE, NONE, NONE, NONE};

// Which regions match one of the three frames.
std::array<bool, Fingerprint::REGIONS> matches(const Fingerprint::Peaks& peaks,
                                               const Fingerprint::Peaks& before,
                                               const Fingerprint::Peaks& now,
                                               const Fingerprint::Peaks& after) {
    const RegionBytes bytes = matching(peaks, before, now, after);
    std::array<bool, Fingerprint::REGIONS> matches{};
    for (std::size_t region = 0; region < matches.size(); ++region) {
        EXPECT_TRUE(bytes[region] == 0 || bytes[region] == 255);
        matches[region] = bytes[region] != 0;
    }
    return matches;
}

TEST(PeakMatchTest, PeaksMatchWithinOneBinInAnyOfTheFrames) {
    const Fingerprint::Peaks peaks{0, 15, 32, 50, 70, 100, 130, 200};
    const auto found = matches(peaks, {1, NONE, NONE, NONE, NONE, 98, NONE, NONE},
                               {NONE, 14, 34, NONE, NONE, NONE, 130, NONE},
                               {NONE, NONE, NONE, 51, 68, NONE, NONE, 199});
    const std::array<bool, 8> expected{true, true, false, true, false, false, true, true};
    EXPECT_EQ(found, expected);
}

TEST(PeakMatchTest, LowestAndHighestPeakMatchNoFrameWithoutPeaks) {
    const auto highest = static_cast<std::uint8_t>(Fingerprint::BINS - 1);
    const Fingerprint::Peaks peaks{0, 1, 2, 0, 0, 0, highest, highest};
    EXPECT_EQ(matches(peaks, NO_PEAKS, NO_PEAKS, NO_PEAKS), (std::array<bool, 8>{}));
}

}  // namespace

}  // namespace qv::node::analysis
