#include "node/outputs/sample_references.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/node/analysis/sounds.h"
#include "tests/node/audio/folder_test.h"
#include "tests/node/report/outline.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using tests::Lines;

class SampleReferencesTest : public tests::FolderTest {
  protected:
    void put_sample(const std::string& name, unsigned seed) const {
        const tests::Sound sound = tests::babble(1, seed);
        SF_INFO info{};
        info.samplerate = 8000;
        info.channels = 1;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        SNDFILE* const file = sf_open(path(name).c_str(), SFM_WRITE, &info);
        ASSERT_NE(file, nullptr);
        sf_write_float(file, sound.data(), static_cast<sf_count_t>(sound.size()));
        sf_close(file);
    }
    SampleReferences references(const std::string& folder) {
        return {folder, lines_, [this](const SampleReferences::Index& samples) {
                    news_.push_back(samples->size());
                }};
    }
    // Returns what the reload has said.
    std::string reload(SampleReferences& samples) {
        ReloadList reloads;
        samples.reload_with(reloads);
        reloads.request();
        std::string result;
        const auto on_result = [&result](const std::string& what, const std::string& error) {
            result = what + ": " + error;
        };
        const auto end = std::chrono::steady_clock::now() + 30s;
        while (!reloads.update(on_result) && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(1ms);
        }
        return result;
    }
    Lines lines() const { return tests::outlines(text_.str()); }

    std::vector<std::size_t> news_;  // How many samples each new index had.
    std::ostringstream text_;
    LineReport lines_{text_};
};

TEST_F(SampleReferencesTest, WithoutAFolderNothingIsLookedFor) {
    SampleReferences samples = references("");
    EXPECT_EQ(samples.open(), "");
    EXPECT_EQ(samples.index(), nullptr);
    ReloadList reloads;
    samples.reload_with(reloads);
    EXPECT_TRUE(reloads.empty());
}

TEST_F(SampleReferencesTest, SamplesAreLoadedAndWhatIsRefusedIsNamed) {
    put_sample("one.wav", 1);
    put_sample("two.wav", 2);
    put("text.wav", "no sound");
    SampleReferences samples = references(folder_);
    ASSERT_EQ(samples.open(), "");
    EXPECT_EQ(samples.index()->size(), 2u);
    const Lines said = lines();
    ASSERT_EQ(said.size(), 2u);
    EXPECT_EQ(said[0].rfind("sample refused: \"text.wav\"", 0), 0u);
    EXPECT_EQ(said[1].rfind("samples: 2", 0), 0u);
    EXPECT_TRUE(news_.empty());
}

TEST_F(SampleReferencesTest, FolderWithoutSamplesIsRefused) {
    EXPECT_EQ(references(folder_).open(),
              "no sample to look for in " + folder_ + ": it holds no WAV file");
    put("text.wav", "no sound");
    EXPECT_EQ(references(folder_).open(),
              "no sample to look for in " + folder_ + ": every file was refused");
}

TEST_F(SampleReferencesTest, FolderThatCannotBeReadIsRefused) {
    EXPECT_NE(references(path("missing")).open(), "");
}

TEST_F(SampleReferencesTest, NewSamplesTakeThePlaceOfTheFormer) {
    put_sample("one.wav", 1);
    SampleReferences samples = references(folder_);
    ASSERT_EQ(samples.open(), "");
    put_sample("two.wav", 2);
    EXPECT_EQ(reload(samples), "folder of samples " + folder_ + ": ");
    EXPECT_EQ(news_, std::vector<std::size_t>{2});
    EXPECT_EQ(samples.index()->size(), 2u);
}

TEST_F(SampleReferencesTest, FormerSamplesStayIfThereAreNoNewOnes) {
    put_sample("one.wav", 1);
    SampleReferences samples = references(folder_);
    ASSERT_EQ(samples.open(), "");
    std::filesystem::remove(path("one.wav"));
    EXPECT_EQ(reload(samples), "folder of samples " + folder_ + ": no sample to look for in " +
                                   folder_ + ": it holds no WAV file");
    EXPECT_TRUE(news_.empty());
    EXPECT_EQ(samples.index()->size(), 1u);
}

}  // namespace

}  // namespace qv::node
