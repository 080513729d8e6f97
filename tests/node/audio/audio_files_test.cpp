#include "node/audio/audio_files.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "quorvane_lib/sanitizer.h"
#include "tests/support/names.h"

namespace qv::node {

namespace {

using tests::names;
using Samples = std::vector<std::int16_t>;

class AudioFilesTest : public testing::Test {
  protected:
    AudioFilesTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "quorvane-node-XXXXXX";
        folder_path_ = mkdtemp(pattern.data());
        use_folder(8, false);
    }
    ~AudioFilesTest() override { std::filesystem::remove_all(folder_path_); }

    void use_folder(std::size_t max_open, bool overwrite) {
        folder_ = std::make_unique<WavFolder>(folder_path_, max_open, overwrite);
    }

    static bool put(AudioFile& file, const Samples& samples) {
        return file.write(samples.data(), samples.size());
    }

    Samples read(const std::string& name) const {
        SF_INFO info{};
        SNDFILE* file = sf_open((folder_path_ + '/' + name).c_str(), SFM_READ, &info);
        Samples samples(static_cast<std::size_t>(info.frames));
        sf_read_short(file, samples.data(), info.frames);
        sf_close(file);
        return samples;
    }

    std::string folder_path_;
    std::unique_ptr<WavFolder> folder_;
};

// Restores a resource limit when it is destroyed.
class LimitGuard {
  public:
    LimitGuard(__rlimit_resource what, rlim_t value) : what_(what) {
        getrlimit(what, &before_);
        rlimit changed = before_;
        changed.rlim_cur = value;
        setrlimit(what, &changed);
    }
    ~LimitGuard() { setrlimit(what_, &before_); }
    LimitGuard(const LimitGuard&) = delete;
    LimitGuard& operator=(const LimitGuard&) = delete;

  private:
    __rlimit_resource what_;
    rlimit before_{};
};

TEST_F(AudioFilesTest, SilenceTakesNoRoomOnTheDisk) {
    const auto file = folder_->create("a.wav", 8000, 1);
    put(*file, {1, 2});
    file->write_silence(100'000'000);
    put(*file, {3});
    EXPECT_TRUE(file->close());
    struct stat status {};
    ASSERT_EQ(::stat((folder_path_ + "/a.wav").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 44 + 2 * 100'000'003);
    EXPECT_LT(status.st_blocks * 512, 1'000'000);
    const Samples samples = read("a.wav");
    ASSERT_EQ(samples.size(), 100'000'003u);
    EXPECT_EQ(samples[1], 2);
    EXPECT_EQ(samples[2], 0);
    EXPECT_EQ(samples[100'000'002], 3);
}

TEST_F(AudioFilesTest, SilenceBeyondWhatAFileHoldsFailsTheFile) {
    const auto file = folder_->create("a.wav", 8000, 1);
    put(*file, {1});
    EXPECT_FALSE(file->write_silence(std::uint64_t{1} << 62));
    EXPECT_TRUE(names(file->error(), {"4 GB"}));
    EXPECT_EQ(read("a.wav"), (Samples{1}));
}

TEST_F(AudioFilesTest, FilesBeyondTheLimitFailAtOnce) {
    folder_->limit_files(1);
    EXPECT_EQ(folder_->create("a.wav", 8000, 1)->error(), "");
    EXPECT_NE(folder_->create("b.wav", 8000, 1)->error(), "");
    EXPECT_FALSE(folder_->exists("b.wav"));
}

TEST_F(AudioFilesTest, WhatIsWrittenCanBeRead) {
    const auto file = folder_->create("a.wav", 16000, 1);
    EXPECT_TRUE(put(*file, {1, -2, 32767}));
    EXPECT_TRUE(put(*file, {-32768}));
    EXPECT_TRUE(file->close());
    EXPECT_EQ(read("a.wav"), (Samples{1, -2, 32767, -32768}));
}

TEST_F(AudioFilesTest, FilesTakeTurnsWhenOnlyOneMayBeOpen) {
    use_folder(1, false);
    const auto one = folder_->create("one.wav", 8000, 1);
    const auto two = folder_->create("two.wav", 8000, 1);
    for (std::int16_t i = 0; i < 5; ++i) {
        EXPECT_TRUE(put(*one, {i}));
        EXPECT_TRUE(put(*two, {static_cast<std::int16_t>(-i)}));
        EXPECT_EQ(folder_->open_files(), 1u);
    }
    EXPECT_TRUE(one->close());
    EXPECT_TRUE(two->close());
    EXPECT_EQ(read("one.wav"), (Samples{0, 1, 2, 3, 4}));
    EXPECT_EQ(read("two.wav"), (Samples{0, -1, -2, -3, -4}));
}

TEST_F(AudioFilesTest, ExistingFileIsKeptUnlessAskedOtherwise) {
    put(*folder_->create("a.wav", 8000, 1), {1});
    const auto second = folder_->create("a.wav", 8000, 1);
    EXPECT_EQ(second->error(), "");
    EXPECT_EQ(second->path(), folder_path_ + "/a-2.wav");
    EXPECT_TRUE(put(*second, {3}));
    EXPECT_TRUE(second->close());
    EXPECT_EQ(read("a.wav"), (Samples{1}));
    EXPECT_EQ(read("a-2.wav"), (Samples{3}));
    use_folder(8, true);
    put(*folder_->create("a.wav", 8000, 1), {2});
    EXPECT_EQ(read("a.wav"), (Samples{2}));
}

TEST_F(AudioFilesTest, FolderOfTheNameOfAFileIsKept) {
    std::filesystem::create_directory(folder_path_ + "/a.wav");
    EXPECT_EQ(folder_->create("a.wav", 8000, 1)->path(), folder_path_ + "/a-2.wav");
    use_folder(8, true);
    EXPECT_EQ(folder_->create("a.wav", 8000, 1)->path(), folder_path_ + "/a-2.wav");
}

// As when two programs write the same call to one folder.
TEST_F(AudioFilesTest, FileThatAnotherProgramIsMakingIsLeftToIt) {
    std::ofstream(folder_path_ + "/.a.wav.new") << "theirs";
    EXPECT_EQ(folder_->create("a.wav", 8000, 1)->path(), folder_path_ + "/a-2.wav");
    EXPECT_EQ(std::filesystem::file_size(folder_path_ + "/.a.wav.new"), 6u);
}

TEST_F(AudioFilesTest, FileThatWasReplacedWhileItWasNotOpenHasFailed) {
    use_folder(1, false);
    const auto file = folder_->create("a.wav", 8000, 1);
    const auto closed = folder_->create("b.wav", 8000, 1);
    folder_->create("c.wav", 8000, 1);
    for (const char* name : {"/a.wav", "/b.wav"}) {
        std::filesystem::remove(folder_path_ + name);
        std::ofstream(folder_path_ + name) << "theirs";
    }
    EXPECT_FALSE(put(*file, {1}));
    EXPECT_EQ(file->error(), "the file was moved away");
    EXPECT_FALSE(closed->close());
    EXPECT_EQ(closed->error(), "the file was moved away");
    EXPECT_EQ(std::filesystem::file_size(folder_path_ + "/a.wav"), 6u);
}

TEST_F(AudioFilesTest, LinksAndFifosAreNotWrittenTo) {
    std::ofstream(folder_path_ + "/other") << "theirs";
    ASSERT_EQ(::symlink("other", (folder_path_ + "/.a.wav.new").c_str()), 0);
    ASSERT_EQ(::mkfifo((folder_path_ + "/.a-2.wav.new").c_str(), 0600), 0);
    for (const bool overwrite : {false, true}) {
        use_folder(8, overwrite);
        const auto file = folder_->create("a.wav", 8000, 1);
        EXPECT_EQ(file->path(), folder_path_ + "/a-3.wav");
        EXPECT_TRUE(put(*file, {1}) && file->close());
        std::filesystem::remove(file->path());
    }
    EXPECT_EQ(std::filesystem::file_size(folder_path_ + "/other"), 6u);
}

TEST_F(AudioFilesTest, SmallFileIsWrittenInOneGo) {
    EXPECT_EQ(folder_->write_text("a.svg", "one")->report.path, folder_path_ + "/a.svg");
    const auto second = folder_->write_text("a.svg", "second");
    EXPECT_TRUE(second->complete);
    EXPECT_EQ(second->report.path, folder_path_ + "/a-2.svg");
    EXPECT_EQ(std::filesystem::file_size(folder_path_ + "/a.svg"), 3u);
    EXPECT_EQ(std::filesystem::file_size(folder_path_ + "/a-2.svg"), 6u);
    std::filesystem::remove_all(folder_path_);
    EXPECT_EQ(folder_->write_text("a.svg", "one")->report.error, "No such file or directory");
}

TEST_F(AudioFilesTest, FilesThatWereMadeAreCounted) {
    folder_->limit_files(2);
    folder_->create("a.wav", 8000, 1);
    folder_->create("b.wav", 8000, 1);
    folder_->create("c.wav", 8000, 1);  // Fails.
    EXPECT_EQ(folder_->created_files(), 2u);
}

TEST_F(AudioFilesTest, VanishedFolderIsAnErrorOfTheFile) {
    std::filesystem::remove_all(folder_path_);
    const auto file = folder_->create("a.wav", 8000, 1);
    EXPECT_FALSE(put(*file, {1}));
    EXPECT_EQ(file->error(), "No such file or directory");
}

TEST_F(AudioFilesTest, FileRemovedWhileItGrowsIsAnErrorOfTheFile) {
    const auto file = folder_->create("a.wav", 8000, 1);
    EXPECT_TRUE(put(*file, {1}));
    std::filesystem::remove_all(folder_path_);
    EXPECT_FALSE(put(*file, {2}));
    EXPECT_TRUE(names(file->error(), {"removed"}));
    EXPECT_FALSE(file->close());
}

TEST_F(AudioFilesTest, FileRemovedBeforeItIsClosedIsAnErrorOfTheFile) {
    const auto file = folder_->create("a.wav", 8000, 1);
    EXPECT_TRUE(put(*file, {1}));
    std::filesystem::remove(file->path());
    put(*folder_->create("a.wav", 8000, 1), {7});
    EXPECT_FALSE(file->close());
    EXPECT_TRUE(names(file->error(), {"removed"}));
    EXPECT_EQ(read("a.wav"), (Samples{7}));
}

TEST_F(AudioFilesTest, FileRemovedWhileOthersHaveItsTurnIsAnErrorOfTheFile) {
    use_folder(1, false);
    const auto file = folder_->create("a.wav", 8000, 1);
    EXPECT_TRUE(put(*file, {1}));
    const auto other = folder_->create("b.wav", 8000, 1);
    std::filesystem::remove(file->path());
    EXPECT_FALSE(file->close());
    EXPECT_TRUE(names(file->error(), {"removed"}));
    EXPECT_TRUE(other->close());
}

TEST_F(AudioFilesTest, FileMovedAwayIsCompletedButNotCalledFine) {
    const auto file = folder_->create("a.wav", 8000, 1);
    EXPECT_TRUE(put(*file, {1}));
    std::filesystem::rename(file->path(), folder_path_ + "/moved.wav");
    EXPECT_TRUE(put(*file, {2}));
    EXPECT_FALSE(file->close());
    EXPECT_TRUE(names(file->error(), {"moved"}));
    EXPECT_EQ(read("moved.wav"), (Samples{1, 2}));
}

TEST_F(AudioFilesTest, ClosingTwiceChangesNothing) {
    const auto file = folder_->create("a.wav", 8000, 1);
    EXPECT_TRUE(put(*file, {1}));
    EXPECT_TRUE(file->close());
    std::filesystem::remove(file->path());
    EXPECT_TRUE(file->close());
}

TEST_F(AudioFilesTest, FolderThatComesBackIsUsedAgain) {
    std::filesystem::remove_all(folder_path_);
    folder_->create("a.wav", 8000, 1);
    std::filesystem::create_directory(folder_path_);
    EXPECT_TRUE(put(*folder_->create("b.wav", 8000, 1), {1}));
}

TEST_F(AudioFilesTest, WhenDescriptorsRunOutOtherFilesAreClosedForIt) {
    const auto first = folder_->create("first.wav", 8000, 1);
    EXPECT_TRUE(put(*first, {1}));
    const int lowest_free = dup(0);
    close(lowest_free);
    const LimitGuard guard(RLIMIT_NOFILE, static_cast<rlim_t>(lowest_free));
    const auto second = folder_->create("second.wav", 8000, 1);
    EXPECT_TRUE(put(*second, {2})) << second->error();
    EXPECT_TRUE(put(*first, {3})) << first->error();
}

TEST_F(AudioFilesTest, NoDescriptorAtAllIsAnErrorOfTheFile) {
    if (ADDRESS_SANITIZER) {
        GTEST_SKIP() << "the sanitizers look at objects through a pipe: they need descriptors";
    }
    const LimitGuard guard(RLIMIT_NOFILE, 0);
    const auto file = folder_->create("a.wav", 8000, 1);
    EXPECT_EQ(file->error(), "Too many open files");
    EXPECT_FALSE(put(*file, {1}));
}

TEST_F(AudioFilesTest, FailingWriteEndsOnlyThatFile) {
    std::signal(SIGXFSZ, SIG_IGN);
    const auto file = folder_->create("a.wav", 8000, 1);
    {
        const LimitGuard guard(RLIMIT_FSIZE, 100);
        EXPECT_FALSE(put(*file, Samples(1000, 1)));
    }
    EXPECT_EQ(file->error(), "File too large");
    EXPECT_FALSE(put(*file, {1}));
    EXPECT_FALSE(file->close());
    EXPECT_TRUE(put(*folder_->create("b.wav", 8000, 1), Samples(1000, 1)));
}

TEST_F(AudioFilesTest, PrepareMakesTheFolder) {
    WavFolder deeper(folder_path_ + "/x/y", 8, false);
    EXPECT_EQ(deeper.prepare(), "");
    EXPECT_TRUE(std::filesystem::is_directory(folder_path_ + "/x/y"));
}

TEST_F(AudioFilesTest, PrepareTellsWhyAFolderCannotBeUsed) {
    put(*folder_->create("file", 8000, 1), {1});
    WavFolder below(folder_path_ + "/file/folder", 8, false);
    EXPECT_EQ(below.prepare(), "Not a directory");
}

}  // namespace

}  // namespace qv::node
