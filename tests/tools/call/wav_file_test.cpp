#include "tools/call/wav_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/names.h"

namespace qv::tools::call {
namespace {

using tests::names;
using Bytes = std::vector<unsigned char>;

class WavFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/quorvane-wav-XXXXXX";
        ASSERT_TRUE(mkdtemp(name));
        folder_ = name;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    // 44 bytes of header, then the audio.
    static Bytes wav(unsigned char format, unsigned char channels, Bytes rate, unsigned char bits,
                     const Bytes& audio) {
        const auto size = static_cast<unsigned char>(audio.size());
        const auto block = static_cast<unsigned char>(channels * bits / 8);
        const Bytes parts[] = {
            {'R', 'I', 'F', 'F', static_cast<unsigned char>(36 + size), 0, 0, 0},
            {'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0, format, 0, channels, 0},
            rate,
            {0, 0, 0, 0, block, 0, bits, 0, 'd', 'a', 't', 'a', size, 0, 0, 0},
            audio};
        Bytes file;
        for (const Bytes& part : parts) {
            std::copy(part.begin(), part.end(), std::back_inserter(file));
        }
        return file;
    }

    std::string write(const Bytes& bytes) {
        const std::string path = folder_ + "/some.wav";
        std::ofstream file(path, std::ios::binary);
        file.write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    std::string refusal_of(const std::string& path) {
        try {
            load_wav(path);
        } catch (const FileError& error) {
            return std::string(error.what()).substr(folder_.size() + 1);
        }
        return "accepted";
    }

    std::string folder_;
};

const Bytes RATE_8000 = {0x40, 0x1F, 0, 0};
const Bytes RATE_16000 = {0x80, 0x3E, 0, 0};

TEST_F(WavFileTest, SixteenBitSamplesAreTakenAsTheyStand) {
    const Audio audio =
        load_wav(write(wav(1, 1, RATE_16000, 16, {0x01, 0x00, 0xFF, 0x7F, 0x00, 0x80})));
    EXPECT_EQ(audio.name, "some.wav");
    EXPECT_EQ(audio.rate, 16000u);
    EXPECT_EQ(*audio.samples, (std::vector<std::int16_t>{1, 32767, -32768}));
}

TEST_F(WavFileTest, EightBitSamplesAreWidened) {
    const Audio audio = load_wav(write(wav(1, 1, RATE_8000, 8, {0x80, 0xFF, 0x00, 0x81})));
    EXPECT_EQ(*audio.samples, (std::vector<std::int16_t>{0, 32512, -32768, 256}));
}

TEST_F(WavFileTest, AStereoFileIsRefused) {
    EXPECT_TRUE(names(refusal_of(write(wav(1, 2, RATE_8000, 16, {1, 0, 2, 0}))),
                      {"some.wav: ", "2 channels"}));
}

TEST_F(WavFileTest, ACompressedFileIsRefusedByItsName) {
    EXPECT_TRUE(names(refusal_of(write(wav(7, 1, RATE_8000, 8, {1, 2}))), {"some.wav: ", "U-Law"}));
}

TEST_F(WavFileTest, ASampleRateOutsideOfTelephonyIsRefused) {
    EXPECT_TRUE(names(refusal_of(write(wav(1, 1, {0x00, 0x77, 0x01, 0}, 16, {1, 0}))),
                      {"some.wav: ", "96000", "8000", "48000"}));
}

TEST_F(WavFileTest, AFileWithoutAudioIsRefused) {
    EXPECT_TRUE(names(refusal_of(write(wav(1, 1, RATE_8000, 16, {}))), {"some.wav: "}));
}

TEST_F(WavFileTest, AMissingFileIsNamed) {
    EXPECT_EQ(refusal_of(folder_ + "/none.wav"), "none.wav: No such file or directory");
}

TEST_F(WavFileTest, AFolderIsNoFile) {
    std::filesystem::create_directory(folder_ + "/sub");
    EXPECT_TRUE(names(refusal_of(folder_ + "/sub"), {"sub: "}));
}

TEST_F(WavFileTest, ATextIsNoWavFile) {
    EXPECT_TRUE(names(refusal_of(write({'h', 'e', 'l', 'l', 'o'})), {"some.wav: "}));
}

TEST_F(WavFileTest, AToneHasItsLengthAndPeriods) {
    const Audio tone = make_tone(8000, 1000, 0.5);
    ASSERT_EQ(tone.samples->size(), 4000u);
    EXPECT_EQ((*tone.samples)[0], 0);
    EXPECT_EQ((*tone.samples)[2], 8000);
    EXPECT_EQ((*tone.samples)[6], -8000);
    EXPECT_EQ((*tone.samples)[8], 0);
}

}  // namespace
}  // namespace qv::tools::call
