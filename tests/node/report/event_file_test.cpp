#include "node/report/event_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace qv::node {

namespace {

class EventFileTest : public testing::Test {
  protected:
    EventFileTest() {
        std::signal(SIGXFSZ, SIG_IGN);
        std::string pattern = std::filesystem::temp_directory_path() / "quorvane-events-XXXXXX";
        folder_ = mkdtemp(pattern.data());
        path_ = folder_ + "/events.jsonl";
        getrlimit(RLIMIT_FSIZE, &usual_);
    }
    ~EventFileTest() override {
        setrlimit(RLIMIT_FSIZE, &usual_);
        std::filesystem::remove_all(folder_);
    }

    // Lets the file grow to this size only, as if the disk were full then.
    void limit(rlim_t size) const {
        const rlimit limited{size, usual_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limited);
    }
    void lift_limit() const { setrlimit(RLIMIT_FSIZE, &usual_); }

    static std::size_t put(EventFile& file, const std::string& text) {
        return file.write(text.data(), text.size());
    }
    std::string text() const {
        std::ifstream file(path_);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string folder_;
    std::string path_;
    rlimit usual_{};
};

TEST_F(EventFileTest, LinesAreAppended) {
    std::ofstream(path_) << "before\n";
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    EXPECT_EQ(put(file, "one\ntwo\n"), 8u);
    EXPECT_EQ(put(file, "three\n"), 6u);
    EXPECT_EQ(text(), "before\none\ntwo\nthree\n");
}

TEST_F(EventFileTest, FileThatCannotBeOpenedSaysWhy) {
    EventFile file;
    EXPECT_EQ(file.open(folder_), "Is a directory");
    EXPECT_EQ(file.open(folder_ + "/none/x"), "No such file or directory");
}

TEST_F(EventFileTest, WhatFollowsACutLineBeginsOnALineOfItsOwn) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    limit(6);
    EXPECT_EQ(put(file, "one\ntwo\n"), 4u);  // One whole line.
    EXPECT_EQ(file.error(), "File too large");
    EXPECT_EQ(put(file, "two\n"), 0u);
    lift_limit();
    EXPECT_EQ(put(file, "two\n"), 4u);
    EXPECT_EQ(text(), "one\ntw\ntwo\n");
}

TEST_F(EventFileTest, SoDoesWhatFollowsTheCutLineOfAnEarlierRun) {
    std::ofstream(path_) << "one\ntw";
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    EXPECT_EQ(put(file, "three\n"), 6u);
    EXPECT_EQ(text(), "one\ntw\nthree\n");
}

TEST_F(EventFileTest, DiskThatIsFullBetweenLinesCutsNone) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    limit(4);
    EXPECT_EQ(put(file, "one\ntwo\n"), 4u);
    lift_limit();
    EXPECT_EQ(put(file, "two\n"), 4u);
    EXPECT_EQ(text(), "one\ntwo\n");
}

TEST_F(EventFileTest, AMovedFileStaysAsItIsAndTheNextLinesGoToANewOne) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    put(file, "one\n");
    std::filesystem::rename(path_, path_ + ".1");
    EXPECT_EQ(put(file, "two\n"), 4u);
    EXPECT_EQ(put(file, "three\n"), 6u);
    EXPECT_EQ(text(), "two\nthree\n");
    EXPECT_EQ(std::filesystem::file_size(path_ + ".1"), 4u);
    EXPECT_EQ(file.replaced(), 1u);
}

TEST_F(EventFileTest, ARemovedFileIsMadeAnew) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    put(file, "one\n");
    std::filesystem::remove(path_);
    EXPECT_EQ(put(file, "two\n"), 4u);
    EXPECT_EQ(text(), "two\n");
}

TEST_F(EventFileTest, AnotherFileAtThePathIsAppendedTo) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    std::filesystem::rename(path_, path_ + ".1");
    std::ofstream(path_) << "rotated";
    EXPECT_EQ(put(file, "one\n"), 4u);
    EXPECT_EQ(text(), "rotated\none\n");
}

TEST_F(EventFileTest, WhileThePathCannotBeOpenedWritesFailAndSayWhy) {
    const std::string away = folder_ + "-away";
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    std::filesystem::rename(folder_, away);
    EXPECT_EQ(put(file, "one\n"), 0u);
    EXPECT_EQ(file.error(), "No such file or directory");
    std::filesystem::rename(away, folder_);
    EXPECT_EQ(put(file, "one\n"), 4u);
    EXPECT_EQ(text(), "one\n");
}

TEST_F(EventFileTest, AFileThatCannotBeOpenedAgainStaysInUse) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    std::filesystem::rename(path_, path_ + ".1");
    std::filesystem::create_directory(path_);
    EXPECT_EQ(file.reopen(), "Is a directory");
    std::filesystem::remove(path_);
    std::filesystem::rename(path_ + ".1", path_);
    EXPECT_EQ(put(file, "one\n"), 4u);
    EXPECT_EQ(file.replaced(), 0u);
}

class NamedPipeTest : public EventFileTest {
  protected:
    NamedPipeTest() {
        std::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    }
    ~NamedPipeTest() override { leave(); }

    void read_it() { reader_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK); }
    void leave() {
        if (reader_ >= 0) {
            ::close(std::exchange(reader_, -1));
        }
    }
    // More than a pipe holds.
    static std::string long_lines() {
        std::string text;
        for (int i = 0; i < 5; ++i) {
            text += std::string(20'000, static_cast<char>('a' + i)) + '\n';
        }
        return text;
    }
    std::string take() const {
        std::string all;
        char bytes[4096];
        for (ssize_t size = 1; size > 0;) {
            size = ::read(reader_, bytes, sizeof bytes);
            all.append(bytes, static_cast<std::size_t>(size > 0 ? size : 0));
        }
        return all;
    }

    int reader_ = -1;
};

TEST_F(NamedPipeTest, PipeWithoutAReaderIsNotWaitedFor) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    EXPECT_EQ(put(file, "one\n"), 0u);
    EXPECT_EQ(file.error(), "no program reads it");
    read_it();
    EXPECT_EQ(put(file, "one\n"), 4u);
    EXPECT_EQ(take(), "one\n");
    EXPECT_EQ(file.replaced(), 0u);
}

TEST_F(NamedPipeTest, NextReaderTakesOverAtALine) {
    EventFile file;
    read_it();
    ASSERT_EQ(file.open(path_), "");
    EXPECT_EQ(put(file, "one\n"), 4u);
    leave();
    EXPECT_EQ(put(file, "two\n"), 0u);
    read_it();
    EXPECT_EQ(put(file, "two\n"), 4u);
    EXPECT_EQ(take(), "two\n");
    EXPECT_EQ(file.replaced(), 0u);
}

TEST_F(NamedPipeTest, SlowReaderIsNotWaitedForAndGetsWholeLines) {
    EventFile file;
    read_it();
    ASSERT_EQ(file.open(path_), "");
    const std::string text = long_lines();
    const std::size_t done = put(file, text);
    EXPECT_EQ(done, 80'004u);  // The pipe took 65,536 bytes, in the midst of the fourth line.
    EXPECT_EQ(file.error(), "its reader does not read");
    EXPECT_TRUE(file.in_midst());
    std::string seen = take();
    EXPECT_EQ(put(file, text.substr(done)), 20'001u);
    EXPECT_FALSE(file.in_midst());
    seen += take();
    EXPECT_TRUE(seen == text);  // It is too long to be printed.
}

TEST_F(NamedPipeTest, SlowReaderGetsTheRestOfItsLineAfterTheFileIsOpenedAgain) {
    EventFile file;
    read_it();
    ASSERT_EQ(file.open(path_), "");
    const std::string text = long_lines();
    const std::size_t done = put(file, text);
    EXPECT_EQ(file.reopen(), "");
    EXPECT_TRUE(file.in_midst());
    std::string seen = take();
    EXPECT_EQ(put(file, text.substr(done)), 20'001u);
    seen += take();
    EXPECT_TRUE(seen == text);
}

TEST_F(NamedPipeTest, ReaderWhoLeavesInTheMiddleOfALineIsMissedLikeAnyOther) {
    EventFile file;
    read_it();
    ASSERT_EQ(file.open(path_), "");
    put(file, long_lines());
    leave();
    EXPECT_EQ(put(file, "next\n"), 0u);
    EXPECT_EQ(file.error(), "no program reads it");
    EXPECT_FALSE(file.in_midst());
    read_it();
    EXPECT_EQ(put(file, "next\n"), 5u);
    EXPECT_EQ(take(), "next\n");
    EXPECT_EQ(file.replaced(), 0u);
}

TEST_F(EventFileTest, ThePathIsOpenedAgainOnRequest) {
    EventFile file;
    ASSERT_EQ(file.open(path_), "");
    std::filesystem::rename(path_, path_ + ".1");
    EXPECT_EQ(file.reopen(), "");
    EXPECT_TRUE(std::filesystem::exists(path_));
    put(file, "one\n");
    EXPECT_EQ(text(), "one\n");
}

}  // namespace

}  // namespace qv::node
