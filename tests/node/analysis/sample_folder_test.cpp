#include "node/analysis/sample_folder.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "tests/node/analysis/sounds.h"
#include "tests/support/names.h"

namespace qv::node::analysis {

namespace {

using namespace tests;
namespace fs = std::filesystem;

class SampleFolderTest : public testing::Test {
  protected:
    SampleFolderTest() {
        std::string name = (fs::temp_directory_path() / "samples_XXXXXX").string();
        folder_ = ::mkdtemp(name.data());
    }
    ~SampleFolderTest() override { fs::remove_all(folder_); }

    void write(const std::string& name, const Sound& sound, int rate, int channels = 1) {
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = channels;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        SNDFILE* const file = sf_open((folder_ / name).c_str(), SFM_WRITE, &info);
        ASSERT_NE(file, nullptr) << name;
        sf_write_float(file, sound.data(),
                       static_cast<sf_count_t>(sound.size()) / channels * channels);
        sf_close(file);
    }

    fs::path folder_;
};

TEST_F(SampleFolderTest, TakesEveryWavFileByItsName) {
    write("welcome.wav", babble(2, 1), 8000);
    write("Thank you.WAV", babble(1, 2, 44'100), 44'100);
    std::ofstream(folder_ / "notes.txt") << "no sound";
    fs::create_directory(folder_ / "old.wav");

    const SampleFolder read = load_folder(folder_);

    EXPECT_TRUE(read.refused.empty());
    ASSERT_EQ(read.index->size(), 2u);
    EXPECT_EQ(read.index->reference(0).name, "Thank you");
    EXPECT_EQ(read.index->reference(1).name, "welcome");
    EXPECT_NEAR(read.index->reference(0).seconds, 1, 0.001);
}

TEST_F(SampleFolderTest, NamesWhatItRefusesAndWhy) {
    write("a short.wav", silence(1) + babble(0.4, 1) + silence(1), 8000);
    write("b stereo.wav", babble(2, 1), 8000, 2);
    std::ofstream(folder_ / "c text.wav") << "no sound";
    write("d silent.wav", silence(3), 8000);
    write("e good.wav", babble(0.6, 1), 8000);

    const SampleFolder read = load_folder(folder_);

    ASSERT_EQ(read.index->size(), 1u);
    EXPECT_EQ(read.index->reference(0).name, "e good");
    ASSERT_EQ(read.refused.size(), 4u);
    EXPECT_EQ(read.refused[0].file, "a short.wav");
    EXPECT_EQ(read.refused[0].reason, "0.40 s of sound, less than 0.50 s");
    EXPECT_EQ(read.refused[1].file, "b stereo.wav");
    EXPECT_EQ(read.refused[1].reason, "2 channels, not 1");
    EXPECT_EQ(read.refused[2].file, "c text.wav");
    EXPECT_NE(read.refused[2].reason, "");
    EXPECT_EQ(read.refused[3].file, "d silent.wav");
    EXPECT_TRUE(names(read.refused[3].reason, {"0.00 s", "0.50 s"}));
}

TEST_F(SampleFolderTest, SaysWhichFolderItCannotRead) {
    try {
        load_folder(folder_ / "missing");
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_TRUE(names(error.what(), {folder_ / "missing", "No such file or directory"}));
    }
}

}  // namespace

}  // namespace qv::node::analysis
