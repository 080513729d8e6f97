#include "node/analysis/resampler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "tests/node/analysis/sounds.h"

namespace qv::node::analysis {

namespace {

// A tone of 400 Hz with an amplitude of a quarter.
std::vector<std::int16_t> sine(int rate, std::size_t count) {
    std::vector<std::int16_t> samples(count);
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<std::int16_t>(
            std::lround(8192 * std::sin(2 * tests::PI * 400 * static_cast<double>(i) / rate)));
    }
    return samples;
}

std::vector<float> converted(Resampler& resampler, const std::vector<std::int16_t>& samples) {
    std::vector<float> out;
    for (std::size_t i = 0; i < samples.size();) {
        const std::size_t count = std::min(samples.size() - i, Resampler::PIECE);
        std::vector<float> piece(resampler.room_for(count));
        piece.resize(resampler.convert(samples.data() + i, count, piece.data()));
        out.insert(out.end(), piece.begin(), piece.end());
        i += count;
    }
    return out;
}

TEST(ResamplerTest, EqualRatesOnlyScale) {
    Resampler resampler(8000, 8000);
    const std::vector<std::int16_t> samples = {0, 16384, -32768, 32767};
    EXPECT_EQ(converted(resampler, samples), (std::vector<float>{0, 0.5F, -1, 32767.0F / 32768}));
}

TEST(ResamplerTest, SampleIsTheSoundOfTheSameMoment) {
    Resampler resampler(48'000, 8000);
    const std::vector<float> out = converted(resampler, sine(48'000, 48'000));
    ASSERT_GT(out.size(), 7900u);
    ASSERT_LE(out.size(), 8000u);
    for (std::size_t i = 200; i < 7800; ++i) {
        ASSERT_NEAR(out[i], 0.25 * std::sin(2 * tests::PI * 400 * static_cast<double>(i) / 8000),
                    0.005)
            << i;
    }
}

TEST(ResamplerTest, ResetForgetsTheAudioSoFar) {
    Resampler used(16'000, 8000);
    converted(used, std::vector<std::int16_t>(1000, 20'000));
    used.reset();
    Resampler fresh(16'000, 8000);
    const std::vector<std::int16_t> samples = sine(16'000, 1000);
    EXPECT_EQ(converted(used, samples), converted(fresh, samples));
}

TEST(ResamplerTest, OnePieceIsTheMost) {
    Resampler resampler(8000, 8000);
    std::vector<float> out(1000);
    EXPECT_EQ(resampler.convert(sine(8000, 1000).data(), 1000, out.data()), Resampler::PIECE);
}

}  // namespace

}  // namespace qv::node::analysis
