#include "tools/speex_resampler.h"

#include <speex/speex_resampler.h>

#include <new>

namespace qv::tools {

void DestroySpeexResampler::operator()(SpeexResamplerState_* state) const {
    speex_resampler_destroy(state);
}

SpeexResampler make_speex_resampler(int from, int to, int quality) {
    int error = RESAMPLER_ERR_SUCCESS;
    SpeexResampler resampler(speex_resampler_init(1, static_cast<spx_uint32_t>(from),
                                                  static_cast<spx_uint32_t>(to), quality, &error));
    if (resampler == nullptr) {
        throw std::bad_alloc();
    }
    speex_resampler_skip_zeros(resampler.get());
    return resampler;
}

void restart(const SpeexResampler& resampler) {
    speex_resampler_reset_mem(resampler.get());
    speex_resampler_skip_zeros(resampler.get());
}

}  // namespace qv::tools
