// Compares frames of a side with the frames of a recording that may be playing. A search among
// thousands of recordings spends much of its time here. Plain functions; any thread may call them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "node/analysis/fingerprint.h"
#include "node/analysis/sample_index.h"

namespace qv::node::analysis {

// What is kept of each frame of a side.
struct HeardFrame {
    std::uint32_t bits = 0;
    Fingerprint::Peaks peaks{};
    // How much a reference that lacks the peak is contradicted.
    SampleIndex::PeakWeights losses{};
};

// The latest frames of a side.
struct HeardFrames {
    static constexpr std::size_t MOST = 128;

    std::int64_t oldest = 0;
    std::int64_t newest = -1;
    std::array<HeardFrame, MOST> list{};  // By number modulo MOST.

    const HeardFrame& operator[](std::int64_t number) const {
        return list[static_cast<std::size_t>(number) % MOST];
    }
    HeardFrame& operator[](std::int64_t number) {
        return list[static_cast<std::size_t>(number) % MOST];
    }
};

// How a frame of the side agrees with a frame of a reference.
struct Comparison {
    // Ten times the logarithm of how much more likely the frame is if the reference plays.
    std::int16_t gain;
    std::uint8_t reliable;   // How many bits of the reference are reliable,
    std::uint8_t different;  // and how many of these the side has not.
};

// Consecutive frames of a side, and those of a reference that would play at the same time.
struct FramesBeside {
    std::int64_t first;  // Number of the first frame of the side, which is among the latest.
    SampleIndex::Frames frames;  // All frames of the reference.
    std::size_t begin;           // The one beside the first frame of the side.
    std::size_t count;
};

// Writes how the frames agree to `comparisons`, which must have room for all of them. A peak
// matches within one frame and one bin.
using FrameComparison = void (*)(const HeardFrames& heard, const FramesBeside& frames,
                                 Comparison* comparisons);

// For every processor.
void compare_frames(const HeardFrames& heard, const FramesBeside& frames, Comparison* comparisons);

// The fastest one for the processor on which the program runs.
FrameComparison fastest_frame_comparison();

}  // namespace qv::node::analysis
