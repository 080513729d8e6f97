// Where the frames of one direction of a call come from.
//
// A source belongs to the call that plays it; one media thread at a time calls it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace qv::host {

class FrameSource {
  public:
    FrameSource() = default;
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;
    virtual ~FrameSource() = default;

    // Writes the next frame of at most `capacity` bytes and returns its size in bytes, which
    // may be 0. Nothing at the end of the media; the host then stops calling. Must neither
    // block nor hang up the call.
    virtual std::optional<std::uint32_t> next(std::uint8_t* buffer, std::uint32_t capacity) = 0;
};

// 16-bit samples in the machine's byte order, shared by the calls that play them.
using Samples = std::shared_ptr<const std::vector<std::int16_t>>;

enum class Repeat { ONCE, FOREVER };

// Frames of `samples_per_frame` samples; the last one may be shorter. With FOREVER the source
// skips an incomplete last frame and begins again. If it has fewer samples than one frame, it
// plays them once and ends. Throws std::invalid_argument for no samples or a frame of none.
std::unique_ptr<FrameSource> play(Samples samples, std::uint32_t samples_per_frame,
                                  Repeat repeat = Repeat::ONCE);

// `frames` frames of zero samples.
std::unique_ptr<FrameSource> play_silence(std::uint32_t frames, std::uint32_t samples_per_frame);

}  // namespace qv::host
