#include "node/audio/rate_converter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

namespace qv::node {

namespace {

using Samples = std::vector<std::int16_t>;

// A tone of 400 Hz.
Samples tone(int rate, std::size_t count) {
    Samples samples(count);
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<std::int16_t>(std::lround(
            8000 * std::sin(2 * 3.14159265358979 * 400 * static_cast<double>(i) / rate)));
    }
    return samples;
}

TEST(RateConverterTest, SampleIsTheSoundOfTheSameMoment) {
    RateConverter converter(8000, 48'000);
    const Samples in = tone(8000, 8000);
    Samples out;
    converter.convert(in.data(), in.size(), out);
    converter.flush(out);
    ASSERT_EQ(out.size(), 48'000u);
    const Samples expected = tone(48'000, 48'000);
    for (std::size_t i = 1000; i < 47'000; ++i) {
        ASSERT_NEAR(out[i], expected[i], 150) << i;
    }
}

TEST(RateConverterTest, LengthIsTrueHoweverTheAudioIsCut) {
    RateConverter converter(44'100, 8000);
    Samples out;
    const Samples piece(441, 1000);
    for (int i = 0; i < 101; ++i) {
        converter.convert(piece.data(), piece.size(), out);
        if (i % 10 == 0) {
            converter.flush(out);
        }
    }
    converter.flush(out);
    EXPECT_EQ(out.size(), 101u * 80);
}

TEST(RateConverterTest, SilenceCountsWithoutARemainderThatIsLost) {
    RateConverter converter(44'100, 8000);
    std::uint64_t silence = 0;
    for (int i = 0; i < 441; ++i) {
        silence += converter.convert_silence(100);
    }
    EXPECT_EQ(silence, 8000u);
}

TEST(RateConverterTest, SilenceOfYearsDoesNotOverflow) {
    RateConverter converter(48'000, 44'100);
    EXPECT_EQ(converter.convert_silence(48'000'000'000'000'000), 44'100'000'000'000'000u);
}

TEST(RateConverterTest, AudioAfterAFlushBeginsAsAfterSilence) {
    const Samples in = tone(8000, 800);
    RateConverter used(8000, 16'000);
    Samples before;
    used.convert(Samples(800, 9000).data(), 800, before);
    used.flush(before);
    Samples after;
    used.convert(in.data(), in.size(), after);
    RateConverter fresh(8000, 16'000);
    Samples expected;
    fresh.convert(in.data(), in.size(), expected);
    EXPECT_EQ(after, expected);
}

}  // namespace

}  // namespace qv::node
