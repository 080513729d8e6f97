#include "node/audio/wav_header.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

// Stereo, 48,000 Hz, 8 bytes of samples.
constexpr WavHeader STEREO = {'R',  'I',  'F', 'F', 0x2c, 0, 0, 0,  // 44 bytes follow.
                              'W',  'A',  'V', 'E',                 //
                              'f',  'm',  't', ' ', 16,   0, 0, 0,  //
                              1,    0,                              // PCM.
                              2,    0,                              // Channels.
                              0x80, 0xbb, 0,   0,                   // Rate.
                              0x00, 0xee, 2,   0,                   // 192,000 bytes per second.
                              4,    0,  // Bytes of one sample of both channels.
                              16,   0,  // Bits per sample.
                              'd',  'a',  't', 'a', 8,    0, 0, 0};

TEST(WavHeaderTest, BytesAreThoseOfTheFormat) {
    EXPECT_EQ(wav_header({48000, 2}, 8), STEREO);
}

TEST(WavHeaderTest, LargestFileIsCountedIn32Bits) {
    const WavHeader header = wav_header({8000, 1}, MAX_WAV_DATA_SIZE);
    EXPECT_EQ(header[4], 0xf7);
    EXPECT_EQ(header[7], 0xff);
    EXPECT_EQ(header[40], 0xd3);
    EXPECT_EQ(header[43], 0xff);
}

TEST(WavHeaderTest, WhatWasMadeIsRead) {
    const auto fields = parse_wav_header(STEREO);
    ASSERT_TRUE(fields.has_value());
    EXPECT_EQ(fields->format.sample_rate, 48000);
    EXPECT_EQ(fields->format.channels, 2);
    EXPECT_EQ(fields->data_size, 8u);
}

TEST(WavHeaderTest, AnyOtherHeaderIsNotRead) {
    for (std::size_t i = 0; i < STEREO.size() - 4; ++i) {
        WavHeader changed = STEREO;
        changed[i] ^= 0x40;
        EXPECT_FALSE(parse_wav_header(changed).has_value()) << i;
    }
}

}  // namespace

}  // namespace qv::node
