#include "node/outputs/file_output.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <sstream>
#include <string>
#include <thread>

#include "tests/node/audio/folder_test.h"
#include "tests/node/report/outline.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using tests::Lines;

class FileOutputTest : public tests::FolderTest {
  protected:
    FileOutput::Options options() const {
        FileOutput::Options options;
        options.folder = folder_;
        return options;
    }
    // Returns whether all files are complete, after a long time at most.
    static bool complete(FileOutput& output, BackgroundStore& store) {
        const auto end = std::chrono::steady_clock::now() + 30s;
        bool complete = false;
        while (!complete && std::chrono::steady_clock::now() < end) {
            complete = output.complete([&store] { store.update(); });
        }
        return complete;
    }
    Lines lines() const { return tests::outlines(text_.str()); }

    std::ostringstream text_;
    LineReport lines_{text_};
};

TEST_F(FileOutputTest, FolderThatCannotBeUsedIsNamed) {
    put("file", "");
    FileOutput::Options wrong = options();
    wrong.folder = path("file");
    EXPECT_EQ(FileOutput(wrong, lines_).open().rfind("cannot write to folder " + path("file"), 0),
              0u);
}

TEST_F(FileOutputTest, NamesInTheFolderAreNotGivenAgain) {
    put("a.wav", "");
    put("b.flac", "");
    FileOutput output(options(), lines_);
    ASSERT_EQ(output.open(), "");
    output.start();
    const auto store = output.share();
    EXPECT_TRUE(store->exists("a.wav"));
    EXPECT_TRUE(store->exists("b.wav"));  // It would become b.flac, too.
    EXPECT_FALSE(store->exists("c.wav"));
    output.forget_name("a.wav");
    EXPECT_FALSE(store->exists("a.wav"));
    output.note_document("d.svg");
    EXPECT_TRUE(store->exists("d.svg"));
}

TEST_F(FileOutputTest, NamesInTheFolderMayBeGivenAgainIfFilesMayBeOverwritten) {
    put("a.wav", "");
    FileOutput::Options overwriting = options();
    overwriting.names.overwrite = true;
    FileOutput output(overwriting, lines_);
    ASSERT_EQ(output.open(), "");
    output.start();
    EXPECT_FALSE(output.share()->exists("a.wav"));
}

TEST_F(FileOutputTest, EndWaitsForTheFilesAndThenForTheDisk) {
    FileOutput::Options synced = options();
    synced.sync_s = 3600;
    FileOutput output(synced, lines_);
    ASSERT_EQ(output.open(), "");
    output.start();
    const auto store = output.share();
    EXPECT_EQ(output.waits_for(), "the work on complete files");
    auto file = store->create("a.wav", 8000, 1);
    EXPECT_NE(output.waits_for().find(" bytes for 1 file"), std::string::npos);
    file.reset();
    EXPECT_TRUE(complete(output, *store));
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (!output.synced() && std::chrono::steady_clock::now() < end) {
    }
    EXPECT_TRUE(output.synced());
    EXPECT_EQ(output.waits_for(), "the last flush to the disk");
    EXPECT_FALSE(output.failed());
}

TEST_F(FileOutputTest, WorkThatDoesNotEndIsGivenUpAndReported) {
    FileOutput output(options(), lines_);
    ASSERT_EQ(output.open(), "");
    output.start();
    const auto store = output.share();
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    output.tasks().add([released] { released.wait(); });
    output.tasks().add([] {});
    while (output.tasks().waiting() != 1) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_FALSE(output.complete([&store] { store->update(); }));
    output.give_up();
    EXPECT_TRUE(output.failed());
    EXPECT_EQ(lines(), Lines{"work given up: 1"});
    release.set_value();
}

TEST_F(FileOutputTest, FileThatStaysAWavFileIsAFailure) {
    FileOutput output(options(), lines_);
    output.report_not_converted("a.wav", "no room");
    EXPECT_TRUE(output.failed());
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(FileOutputTest, FiguresHaveWhatIsOpen) {
    FileOutput output(options(), lines_);
    ASSERT_EQ(output.open(), "");
    output.start();
    const auto store = output.share();
    NodeFigures figures;
    figures.calls_not_written = 9;
    output.add_to(figures);
    EXPECT_EQ(figures.open_files, 0u);
    EXPECT_EQ(figures.calls_not_written, 0u);
}

}  // namespace

}  // namespace qv::node
