#include "tools/call/side_source.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace qv::tools::call {

SideSource::SideSource(host::Samples samples, FrameSizes sizes, std::uint64_t total,
                       Afterwards afterwards, std::function<void()> ended)
    : samples_(std::move(samples)),
      sizes_(sizes),
      total_(total),
      afterwards_(afterwards),
      ended_(std::move(ended)) {
    if (!samples_ || samples_->empty()) {
        throw std::invalid_argument("a side without samples");
    }
}

std::optional<std::uint32_t> SideSource::next(std::uint8_t* buffer, std::uint32_t capacity) {
    if (position_ == total_) {
        ended_();
        return std::nullopt;
    }
    const std::uint64_t room = capacity / sizeof(std::int16_t);
    const std::uint64_t count =
        std::min({std::uint64_t{sizes_.samples(frame_++)}, total_ - position_, room});
    if (position_ + count <= samples_->size()) {
        std::memcpy(buffer, samples_->data() + position_, count * sizeof(std::int16_t));
    } else {
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::int16_t value = sample(position_ + i);
            std::memcpy(buffer + i * sizeof(value), &value, sizeof(value));
        }
    }
    position_ += count;
    return static_cast<std::uint32_t>(count * sizeof(std::int16_t));
}

std::int16_t SideSource::sample(std::uint64_t position) const {
    if (position < samples_->size()) {
        return (*samples_)[position];
    }
    return afterwards_ == Afterwards::REPEAT ? (*samples_)[position % samples_->size()]
                                             : std::int16_t{0};
}

}  // namespace qv::tools::call
