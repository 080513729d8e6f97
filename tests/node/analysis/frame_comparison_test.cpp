#include "node/analysis/frame_comparison.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace qv::node::analysis {

namespace {

using Frame = SampleIndex::Frame;

constexpr std::uint8_t ABSENT = Fingerprint::NO_PEAK;
constexpr Fingerprint::Peaks SILENT{ABSENT, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT};

// A frame of a reference, without bits, with a peak in the first region.
Frame reference_peak(std::uint8_t bin) {
    return {0, 0, {bin, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT}, {26}, {17}};
}

HeardFrame heard_peak(std::uint8_t bin) {
    return {0, {bin, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT, ABSENT}, {8}};
}

// "GAIN RELIABLE DIFFERENT" of each frame, if the side and the reference begin at the same time.
std::string compared(FrameComparison comparison, const std::vector<HeardFrame>& side,
                     const std::vector<Frame>& reference) {
    HeardFrames heard;
    for (const HeardFrame& each : side) {
        heard[++heard.newest] = each;
    }
    std::vector<Comparison> list(side.size());
    comparison(heard, {0, {reference.data(), reference.size()}, 0, side.size()}, list.data());
    std::string text;
    for (const Comparison& each : list) {
        text += (text.empty() ? "" : ", ") + std::to_string(each.gain) + ' ' +
                std::to_string(each.reliable) + ' ' + std::to_string(each.different);
    }
    return text;
}

class FrameComparisonTest : public testing::TestWithParam<FrameComparison> {};

TEST_P(FrameComparisonTest, ReliableBitsThatAgreeGainAndOthersLose) {
    const std::vector<HeardFrame> side{{0x0000FFFF, SILENT, {}}, {0x00000000, SILENT, {}}};
    const std::vector<Frame> reference{{0xFFFFFFFF, 0x000003FF, SILENT, {}, {}},
                                       {0xF0000001, 0x80000003, SILENT, {}, {}}};
    EXPECT_EQ(compared(GetParam(), side, reference), "10 10 0, -3 3 2");
}

TEST_P(FrameComparisonTest, PeaksThatBothHaveGain) {
    EXPECT_EQ(compared(GetParam(), {heard_peak(5)}, {reference_peak(6)}), "26 0 0");
}

TEST_P(FrameComparisonTest, PeaksThatOnlyOneHasLose) {
    const Frame no_peak{0, 0, SILENT, {}, {}};
    EXPECT_EQ(compared(GetParam(), {heard_peak(5)}, {no_peak}), "-8 0 0");
    EXPECT_EQ(compared(GetParam(), {{0, SILENT, {}}}, {reference_peak(5)}), "-17 0 0");
    EXPECT_EQ(compared(GetParam(), {heard_peak(5)}, {reference_peak(7)}), "-25 0 0");
}

TEST_P(FrameComparisonTest, PeaksMatchThoseOfTheFramesBeforeAndAfter) {
    EXPECT_EQ(compared(GetParam(), {heard_peak(5), heard_peak(50), heard_peak(5)},
                       {reference_peak(50), reference_peak(5), reference_peak(50)}),
              "26 0 0, 26 0 0, 26 0 0");
    EXPECT_EQ(compared(GetParam(), {heard_peak(5), heard_peak(50), heard_peak(80)},
                       {reference_peak(80), reference_peak(90), reference_peak(5)}),
              "-25 0 0, -25 0 0, -25 0 0");
}

TEST_P(FrameComparisonTest, ComparesNothing) {
    EXPECT_EQ(compared(GetParam(), {}, {}), "");
}

INSTANTIATE_TEST_SUITE_P(ForEveryAndForThisProcessor, FrameComparisonTest,
                         testing::Values(compare_frames, fastest_frame_comparison()));

TEST(FrameComparisonsTest, GiveTheSameResults) {
    std::mt19937 random(1);
    const auto word = [&random] { return static_cast<std::uint32_t>(random()); };
    const auto bytes = [&word](std::uint32_t below) {
        Fingerprint::Peaks list{};
        for (std::uint8_t& each : list) {
            each = static_cast<std::uint8_t>(word() % below);
        }
        return list;
    };
    std::vector<HeardFrame> side(HeardFrames::MOST);
    std::vector<Frame> reference(side.size());
    for (std::size_t i = 0; i < side.size(); ++i) {
        side[i] = {word(), bytes(20), bytes(9)};
        reference[i] = {word(), word(), bytes(20), bytes(27), bytes(18)};
    }
    EXPECT_EQ(compared(compare_frames, side, reference),
              compared(fastest_frame_comparison(), side, reference));
}

}  // namespace

}  // namespace qv::node::analysis
