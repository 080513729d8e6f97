// A resampler of speexdsp for one channel, freed by its owner. It keeps the state of one signal and
// belongs to one thread.
#pragma once

#include <memory>

struct SpeexResamplerState_;

namespace qv::tools {

struct DestroySpeexResampler {
    void operator()(SpeexResamplerState_* state) const;
};
using SpeexResampler = std::unique_ptr<SpeexResamplerState_, DestroySpeexResampler>;

// Rates in Hz, above 0; `quality` is 0 to 10. The delay of the filter is left out: the first sample
// of the result is the sound at the first sample of the input. Throws std::bad_alloc.
SpeexResampler make_speex_resampler(int from, int to, int quality);

// Forgets the audio so far.
void restart(const SpeexResampler& resampler);

}  // namespace qv::tools
