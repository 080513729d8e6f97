// The frames of one side of a call.
//
// A source belongs to the call that plays it; one media thread at a time calls it.
#pragma once

#include <cstdint>
#include <functional>

#include "host/frame_source.h"

namespace qv::tools::call {

// The sizes of a side's frames. If the frame time is not a whole number of samples, frames of two
// sizes alternate, so that the average matches the rate.
class FrameSizes {
  public:
    FrameSizes(std::uint32_t rate, std::uint32_t frame_ms) : rate_(rate), frame_ms_(frame_ms) {}

    // The number of samples in a frame; frames are counted from 0.
    std::uint32_t samples(std::uint64_t frame) const {
        return static_cast<std::uint32_t>(begin_of(frame + 1) - begin_of(frame));
    }

  private:
    std::uint64_t begin_of(std::uint64_t frame) const { return frame * rate_ * frame_ms_ / 1000; }

    std::uint64_t rate_;      // samples a second
    std::uint64_t frame_ms_;  // milliseconds
};

// What a side plays after its audio.
enum class Afterwards { SILENCE, REPEAT };

class SideSource : public host::FrameSource {
  public:
    // Plays `total` samples of the audio, and then what `afterwards` says. Calls `ended` once, on
    // the media thread, one frame time after the last frame; `ended` must not block. Throws
    // std::invalid_argument without samples.
    SideSource(host::Samples samples, FrameSizes sizes, std::uint64_t total, Afterwards afterwards,
               std::function<void()> ended);

    std::optional<std::uint32_t> next(std::uint8_t* buffer, std::uint32_t capacity) override;

  private:
    std::int16_t sample(std::uint64_t position) const;

    const host::Samples samples_;
    const FrameSizes sizes_;
    const std::uint64_t total_;
    const Afterwards afterwards_;
    const std::function<void()> ended_;
    std::uint64_t frame_ = 0;     // number of the next frame
    std::uint64_t position_ = 0;  // next sample
};

}  // namespace qv::tools::call
