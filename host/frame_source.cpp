#include "host/frame_source.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace qv::host {
namespace {

class SamplePlayer : public FrameSource {
  public:
    SamplePlayer(Samples samples, std::uint32_t samples_per_frame, Repeat repeat)
        : samples_(std::move(samples)), per_frame_(samples_per_frame), repeat_(repeat) {
        if (!samples_ || per_frame_ == 0) {
            throw std::invalid_argument("play: no samples, or frames of no sample");
        }
    }

    std::optional<std::uint32_t> next(std::uint8_t* buffer, std::uint32_t capacity) override {
        std::size_t left = samples_->size() - position_;
        if (repeat_ == Repeat::FOREVER && left < per_frame_ && samples_->size() >= per_frame_) {
            position_ = 0;
            left = samples_->size();
        }
        if (left == 0) {
            return std::nullopt;
        }
        const std::size_t count = std::min({left, std::size_t{per_frame_}, capacity / SAMPLE});
        std::memcpy(buffer, samples_->data() + position_, count * SAMPLE);
        position_ += count;
        return static_cast<std::uint32_t>(count * SAMPLE);
    }

  private:
    static constexpr std::size_t SAMPLE = sizeof(std::int16_t);

    const Samples samples_;
    const std::uint32_t per_frame_;
    const Repeat repeat_;
    std::size_t position_ = 0;  // next sample
};

class SilencePlayer : public FrameSource {
  public:
    SilencePlayer(std::uint32_t frames, std::uint32_t samples_per_frame)
        : left_(frames), bytes_(samples_per_frame * 2) {}

    std::optional<std::uint32_t> next(std::uint8_t* buffer, std::uint32_t capacity) override {
        if (left_ == 0) {
            return std::nullopt;
        }
        --left_;
        const std::uint32_t size = std::min(bytes_, capacity);
        std::memset(buffer, 0, size);
        return size;
    }

  private:
    std::uint32_t left_;  // frames
    const std::uint32_t bytes_;
};

}  // namespace

std::unique_ptr<FrameSource> play(Samples samples, std::uint32_t samples_per_frame, Repeat repeat) {
    return std::make_unique<SamplePlayer>(std::move(samples), samples_per_frame, repeat);
}

std::unique_ptr<FrameSource> play_silence(std::uint32_t frames, std::uint32_t samples_per_frame) {
    return std::make_unique<SilencePlayer>(frames, samples_per_frame);
}

}  // namespace qv::host
