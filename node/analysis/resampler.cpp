#include "node/analysis/resampler.h"

#include <speex/speex_resampler.h>

#include <algorithm>

namespace qv::node::analysis {

namespace {

// Speex quality, 0 to 10. The filter passes 0.9 of the band, which covers what the analysis uses,
// and is short enough for thousands of sides.
constexpr int QUALITY = 3;
constexpr float FULL_SCALE = 32768;

}  // namespace

Resampler::Resampler(int from, int to)
    : state_(from == to ? nullptr : tools::make_speex_resampler(from, to, QUALITY)),
      from_(from),
      to_(to) {}

std::size_t Resampler::room_for(std::size_t count) const {
    return count * static_cast<std::size_t>(to_) / static_cast<std::size_t>(from_) + 2;
}

std::size_t Resampler::convert(const std::int16_t* samples, std::size_t count, float* out) {
    float in[PIECE];
    count = std::min(count, PIECE);
    float* const begin = state_ == nullptr ? out : in;
    for (std::size_t i = 0; i < count; ++i) {
        begin[i] = static_cast<float>(samples[i]) / FULL_SCALE;
    }
    if (state_ == nullptr) {
        return count;
    }
    auto taken = static_cast<spx_uint32_t>(count);
    auto written = static_cast<spx_uint32_t>(room_for(count));
    speex_resampler_process_float(state_.get(), 0, in, &taken, out, &written);
    return written;
}

void Resampler::reset() {
    if (state_ != nullptr) {
        tools::restart(state_);
    }
}

}  // namespace qv::node::analysis
