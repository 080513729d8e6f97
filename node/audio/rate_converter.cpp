#include "node/audio/rate_converter.h"

#include <speex/speex_resampler.h>

#include <algorithm>

namespace qv::node {

namespace {

// Speex quality, 0 to 10. This one keeps the full band of speech.
constexpr int QUALITY = 5;

}  // namespace

RateConverter::RateConverter(int from, int to)
    : state_(tools::make_speex_resampler(from, to, QUALITY)),
      from_(static_cast<std::uint64_t>(from)),
      to_(static_cast<std::uint64_t>(to)) {}

void RateConverter::convert(const std::int16_t* samples, std::size_t count,
                            std::vector<std::int16_t>& out) {
    taken_ += count;
    process(samples, count, out);
}

// Divides before it multiplies, because the product of all samples could overflow.
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
    tools::restart(state_);
}

std::uint64_t RateConverter::convert_silence(std::uint64_t count) {
    taken_ += count;
    const std::uint64_t silence = due() - given_;
    given_ += silence;
    return silence;
}

}  // namespace qv::node
