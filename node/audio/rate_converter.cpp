#include "node/audio/rate_converter.h"

#include <speex/speex_resampler.h>

#include <algorithm>
#include <new>

namespace qv::node {

namespace {

// Speex quality, 0 to 10. This one keeps the full band of speech.
constexpr int QUALITY = 5;

}  // namespace

void RateConverter::Destroy::operator()(SpeexResamplerState_* state) const {
    speex_resampler_destroy(state);
}

RateConverter::RateConverter(int from, int to)
    : from_(static_cast<std::uint64_t>(from)), to_(static_cast<std::uint64_t>(to)) {
    int error = RESAMPLER_ERR_SUCCESS;
    state_.reset(speex_resampler_init(1, static_cast<spx_uint32_t>(from),
                                      static_cast<spx_uint32_t>(to), QUALITY, &error));
    if (state_ == nullptr) {
        throw std::bad_alloc();
    }
    speex_resampler_skip_zeros(state_.get());
}

RateConverter::~RateConverter() = default;

void RateConverter::convert(const std::int16_t* samples, std::size_t count,
                            std::vector<std::int16_t>& out) {
    taken_ += count;
    process(samples, count, out);
}

// Computed in parts, because the product of the remainder must not overflow.
std::uint64_t RateConverter::due() const {
    return taken_ / from_ * to_ + taken_ % from_ * to_ / from_;
}

// Never returns more samples than are due for the input.
void RateConverter::process(const std::int16_t* samples, std::size_t count,
                            std::vector<std::int16_t>& out) {
    while (count > 0) {
        const std::size_t begin = out.size();
        auto in = static_cast<spx_uint32_t>(std::min<std::size_t>(count, 4096));
        auto room = static_cast<spx_uint32_t>(in * to_ / from_ + 16);
        out.resize(begin + room);
        speex_resampler_process_int(state_.get(), 0, samples, &in, out.data() + begin, &room);
        const std::uint64_t used = std::min<std::uint64_t>(room, due() - given_);
        out.resize(begin + used);
        given_ += used;
        samples += in;
        count -= in;
    }
}

void RateConverter::flush(std::vector<std::int16_t>& out) {
    const auto latency =
        static_cast<std::size_t>(speex_resampler_get_input_latency(state_.get())) + 1;
    const std::vector<std::int16_t> silence(latency, 0);
    process(silence.data(), silence.size(), out);
    out.resize(out.size() + due() - given_, 0);
    given_ = due();
    speex_resampler_reset_mem(state_.get());
    speex_resampler_skip_zeros(state_.get());
}

std::uint64_t RateConverter::convert_silence(std::uint64_t count) {
    taken_ += count;
    const std::uint64_t silence = due() - given_;
    given_ += silence;
    return silence;
}

}  // namespace qv::node
