#include "node/audio/encoder.h"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <vector>

#include "node/audio/audio_files.h"
#include "node/audio/digest.h"
#include "tests/node/audio/folder_test.h"
#include "tests/support/failing_allocation.h"

namespace qv::node {

namespace {

using Names = std::set<std::string>;
using Samples = std::vector<std::int16_t>;

struct Heard {
    int sample_rate = 0;
    int channels = 0;
    Samples samples;
};

// A tone on each channel, and every extreme value.
Samples sound(std::size_t frames, int channels, int sample_rate) {
    Samples samples;
    for (std::size_t i = 0; i < frames; ++i) {
        for (int channel = 0; channel < channels; ++channel) {
            const double angle = 2 * M_PI * (channel == 0 ? 400 : 700) * static_cast<double>(i);
            samples.push_back(static_cast<std::int16_t>(8000 * std::sin(angle / sample_rate)));
        }
    }
    samples[0] = -32768;
    samples[1] = 32767;
    return samples;
}

double energy(const Samples& samples) {
    double sum = 0;
    for (const std::int16_t sample : samples) {
        sum += double{1} * sample * sample;
    }
    return sum / static_cast<double>(samples.size());
}

class EncoderTest : public tests::FolderTest {
  protected:
    // Returns the path.
    std::string write(const Samples& samples, int sample_rate, int channels = 1) {
        WavFolder store(folder_, 10, true);
        const auto file = store.create("call.wav", sample_rate, channels);
        file->write(samples.data(), samples.size());
        EXPECT_TRUE(file->close());
        return file->path();
    }

    Heard read(const std::string& name) const {
        SF_INFO info{};
        SNDFILE* file = sf_open(path(name).c_str(), SFM_READ, &info);
        if (file == nullptr) {
            return {};
        }
        Heard heard{info.samplerate, info.channels, {}};
        heard.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
        EXPECT_EQ(sf_readf_short(file, heard.samples.data(), info.frames), info.frames);
        sf_close(file);
        return heard;
    }
};

TEST_F(EncoderTest, FlacHasEverySampleAndTakesThePlaceOfTheWavFile) {
    for (const int channels : {1, 2}) {
        for (const int rate : {8000, 11025, 48000}) {
            const Samples samples = sound(20'001, channels, rate);
            const Encoded encoded =
                encode(write(samples, rate, channels), {AudioFormat::FLAC, true});
            EXPECT_EQ(encoded.error, "");
            EXPECT_EQ(encoded.path, path("call.flac"));
            EXPECT_EQ(encoded.sample_rate, rate);
            EXPECT_EQ(encoded.samples, 20'001u);
            const Heard heard = read("call.flac");
            EXPECT_EQ(heard.sample_rate, rate);
            EXPECT_EQ(heard.channels, channels);
            EXPECT_EQ(heard.samples, samples);
            EXPECT_EQ(names(), Names{"call.flac"});
        }
    }
}

TEST_F(EncoderTest, OpusHasAsMuchAudioOfTheSameLoudness) {
    const Samples samples = sound(40'003, 2, 16'000);
    const Encoded encoded = encode(write(samples, 16'000, 2), {AudioFormat::OPUS});
    EXPECT_EQ(encoded.error, "");
    const Heard heard = read("call.opus");
    EXPECT_EQ(heard.sample_rate, 16'000);
    EXPECT_EQ(heard.channels, 2);
    EXPECT_EQ(heard.samples.size(), samples.size());
    EXPECT_NEAR(energy(heard.samples) / energy(samples), 1, 0.1);
    EXPECT_EQ(names(), Names{"call.opus"});
}

TEST_F(EncoderTest, OpusTakesTheNextHigherOfItsRates) {
    EXPECT_EQ(rate_in(AudioFormat::OPUS, 8000), 8000);
    EXPECT_EQ(rate_in(AudioFormat::OPUS, 8001), 12000);
    EXPECT_EQ(rate_in(AudioFormat::OPUS, 11025), 12000);
    EXPECT_EQ(rate_in(AudioFormat::OPUS, 22050), 24000);
    EXPECT_EQ(rate_in(AudioFormat::OPUS, 32000), 48000);
    EXPECT_EQ(rate_in(AudioFormat::OPUS, 44100), 48000);
    EXPECT_EQ(rate_in(AudioFormat::OPUS, 96000), 48000);
    EXPECT_EQ(rate_in(AudioFormat::FLAC, 44100), 44100);
}

TEST_F(EncoderTest, AudioOfAnotherRateKeepsItsDuration) {
    const Samples samples = sound(44'100, 2, 44'100);
    const Encoded encoded = encode(write(samples, 44'100, 2), {AudioFormat::OPUS});
    EXPECT_EQ(encoded.error, "");
    EXPECT_EQ(encoded.sample_rate, 48'000);
    EXPECT_EQ(encoded.samples, 48'000u);
    EXPECT_NEAR(energy(read("call.opus").samples) / energy(samples), 1, 0.1);
}

TEST_F(EncoderTest, ExistingFileIsReplacedOnlyOnRequest) {
    put("call.flac", "somebody else's");
    const Encoded numbered = encode(write(sound(100, 1, 8000), 8000), {AudioFormat::FLAC});
    EXPECT_EQ(numbered.error, "");
    EXPECT_EQ(numbered.path, path("call-2.flac"));
    EXPECT_EQ(bytes_of("call.flac"), "somebody else's");
    EXPECT_EQ(names(), (Names{"call.flac", "call-2.flac"}));
    const Encoded replaced = encode(write(sound(100, 1, 8000), 8000), {AudioFormat::FLAC, true});
    EXPECT_EQ(replaced.path, path("call.flac"));
    EXPECT_EQ(bytes_of("call.flac").substr(0, 4), "fLaC");
    EXPECT_EQ(names(), (Names{"call.flac", "call-2.flac"}));
}

TEST_F(EncoderTest, DigestIsThatOfTheNewFile) {
    EncodeOptions options;
    options.digest = true;
    const Encoded encoded = encode(write(sound(20'001, 1, 8000), 8000), options);
    std::string error;
    EXPECT_EQ(encoded.sha256, sha256_of_file(encoded.path, error));
    EXPECT_EQ(encoded.sha256.size(), 64u);
}

TEST_F(EncoderTest, WavFileStaysWhenTheWorkIsGivenUp) {
    const std::string wav = write(sound(100, 1, 8000), 8000);
    const Encoded given_up = encode(wav, {AudioFormat::FLAC, false, false, [] { return false; }});
    EXPECT_EQ(given_up.error, "it was given up");
    EXPECT_EQ(given_up.path, wav);
    EXPECT_EQ(names(), Names{"call.wav"});
    int steps = 0;
    encode(wav, {AudioFormat::FLAC, false, false, [&steps] { return ++steps == 1; }});
    EXPECT_EQ(steps, 2);
    EXPECT_EQ(names(), (Names{"call.flac", "call.wav"}));
}

// Otherwise, the failure could not be reported truly.
TEST_F(EncoderTest, WhicheverAllocationFailsTheWavFileIsStillThere) {
    const std::string wav = write(sound(100, 1, 8000), 8000);
    const EncodeOptions options{AudioFormat::FLAC, false, true, [] { return true; }};
    const int failures = tests::with_each_allocation_failing(
        [&] { encode(wav, options); },
        [this](bool failed) { EXPECT_EQ(names(), Names{failed ? "call.wav" : "call.flac"}); });
    EXPECT_GT(failures, 5);
}

TEST_F(EncoderTest, FileThatIsNoAudioStays) {
    put("call.wav", "text");
    const Encoded encoded = encode(path("call.wav"), {AudioFormat::FLAC});
    EXPECT_EQ(encoded.error, "the WAV file cannot be read");
    EXPECT_EQ(bytes_of("call.wav"), "text");
    EXPECT_EQ(names(), Names{"call.wav"});
}

// Somebody may have put them in the place of the file.
TEST_F(EncoderTest, FifosAndLinksAreNotRead) {
    std::filesystem::rename(write(sound(100, 1, 8000), 8000), path("other.wav"));
    ASSERT_EQ(::symlink(path("other.wav").c_str(), path("link.wav").c_str()), 0);
    ASSERT_EQ(::mkfifo(path("fifo.wav").c_str(), 0600), 0);
    for (const char* name : {"link.wav", "fifo.wav"}) {
        EXPECT_EQ(encode(path(name), {AudioFormat::FLAC}).error, "the WAV file cannot be read");
    }
    EXPECT_EQ(names(), (Names{"fifo.wav", "link.wav", "other.wav"}));
}

TEST_F(EncoderTest, FileWithoutAudioStaysAWavFile) {
    for (const AudioFormat format : {AudioFormat::FLAC, AudioFormat::OPUS}) {
        EXPECT_EQ(encode(write({}, 8000), {format}).error, "the new file does not have the audio");
    }
    EXPECT_EQ(names(), Names{"call.wav"});
}

}  // namespace

}  // namespace qv::node
