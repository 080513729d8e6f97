#include "tools/speex_resampler.h"

#include <gtest/gtest.h>
#include <speex/speex_resampler.h>

#include <cstdint>
#include <vector>

namespace qv::tools {

namespace {

std::vector<std::int16_t> converted(const SpeexResampler& resampler) {
    const std::vector<std::int16_t> in(800, 10'000);
    std::vector<std::int16_t> out(2000);
    auto taken = static_cast<spx_uint32_t>(in.size());
    auto written = static_cast<spx_uint32_t>(out.size());
    speex_resampler_process_int(resampler.get(), 0, in.data(), &taken, out.data(), &written);
    out.resize(written);
    return out;
}

TEST(SpeexResamplerTest, FirstSampleIsTheFirstSound) {
    const std::vector<std::int16_t> out = converted(make_speex_resampler(8000, 16'000, 5));
    ASSERT_FALSE(out.empty());
    EXPECT_GT(out[0], 4000);  // With the delay of the filter, the sound would begin with silence.
}

TEST(SpeexResamplerTest, RestartForgetsTheAudioSoFar) {
    const SpeexResampler resampler = make_speex_resampler(8000, 16'000, 5);
    const std::vector<std::int16_t> first = converted(resampler);
    EXPECT_NE(converted(resampler), first);
    restart(resampler);
    EXPECT_EQ(converted(resampler), first);
}

}  // namespace

}  // namespace qv::tools
