#include "node/outputs/event_output.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "tests/node/audio/folder_test.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;

class EventOutputTest : public tests::FolderTest {
  protected:
    std::string open(const std::string& name) {
        output_ = std::make_unique<EventOutput>(EventOutput::Options{path(name), false}, lines_,
                                                patience_);
        return output_->open();
    }
    // Flushes until a line says so, at most for a long time.
    bool flushed_until(const std::string& what) {
        const auto end = Patience::Clock::now() + 30s;
        while (said().find(what) == std::string::npos && Patience::Clock::now() < end) {
            output_->flush();
            std::this_thread::sleep_for(1ms);
        }
        return said().find(what) != std::string::npos;
    }
    std::string said() const { return text_.str(); }

    std::ostringstream text_;
    LineReport lines_{text_};
    Patience patience_{false, [] { return true; }};
    std::unique_ptr<EventOutput> output_;
};

TEST_F(EventOutputTest, WithoutAFileThereIsNoLog) {
    EventOutput output({}, lines_, patience_);
    EXPECT_EQ(output.open(), "");
    EXPECT_EQ(output.log(), nullptr);
    output.flush();
    EXPECT_EQ(output.finish().count, 0u);
}

TEST_F(EventOutputTest, FileThatCannotBeOpenedIsNamed) {
    EXPECT_EQ(open("missing/events"),
              "cannot write events to " + path("missing/events") + ": No such file or directory");
}

TEST_F(EventOutputTest, EventsAreInTheFileAtTheEnd) {
    ASSERT_EQ(open("events"), "");
    output_->log()->overflow(7);
    EXPECT_EQ(output_->finish().count, 0u);
    EXPECT_NE(bytes_of("events").find(R"("packets":7)"), std::string::npos);
    EXPECT_FALSE(output_->failed());
    EXPECT_EQ(said(), "");
}

TEST_F(EventOutputTest, EventsAreCopiedWithoutAFileToo) {
    EventOutput output({}, lines_, patience_);
    ASSERT_EQ(output.open(), "");
    std::string kinds;
    output.copy_to([&kinds](const std::string& kind, const std::string& /*call*/,
                            const std::string& /*text*/) { kinds += kind + ' '; });
    output.log()->overflow(7);
    output.flush();
    EXPECT_EQ(kinds, "overflow ");
    EXPECT_EQ(output.finish().count, 0u);
}

TEST_F(EventOutputTest, FailureIsReportedOnceAndItsEndToo) {
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    ASSERT_EQ(open("pipe"), "");
    output_->log()->overflow(7);
    ASSERT_TRUE(flushed_until("events not written"));
    output_->flush();
    EXPECT_TRUE(output_->failed());
    std::ifstream reader(path("pipe"));
    ASSERT_TRUE(flushed_until("events are written again"));
    const std::string said_once = said();
    EXPECT_NE(said_once.find(path("pipe") + ": no program reads it"), std::string::npos);
    EXPECT_NE(said_once.find("0 lost"), std::string::npos);
    EXPECT_EQ(said_once.find("events not written"), said_once.rfind("events not written"));
}

TEST_F(EventOutputTest, EventsThatNobodyHasReadAtTheEndAreLost) {
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    const Patience none{false, [] { return false; }};
    EventOutput output({path("pipe"), false}, lines_, none);
    ASSERT_EQ(output.open(), "");
    output.log()->overflow(7);
    output.log()->overflow(8);
    const LostEvents lost = output.finish();
    EXPECT_EQ(lost.count, 2u);
    EXPECT_EQ(lost.path, path("pipe"));
    EXPECT_TRUE(output.failed());
}

TEST_F(EventOutputTest, FileThatWasMovedIsReplacedAndThisIsReported) {
    ASSERT_EQ(open("events"), "");
    output_->log()->overflow(7);
    EXPECT_EQ(output_->finish().count, 0u);
    std::filesystem::rename(path("events"), path("events.1"));
    output_->log()->overflow(8);
    ASSERT_TRUE(flushed_until("events go to a new file"));
    EXPECT_NE(bytes_of("events").find(R"("packets":8)"), std::string::npos);
}

TEST_F(EventOutputTest, FileIsOpenedAgainOnRequest) {
    ASSERT_EQ(open("events"), "");
    ReloadList reloads;
    output_->reopen_with(reloads);
    std::filesystem::remove(path("events"));
    std::filesystem::create_directory(path("events"));
    reloads.request();
    std::string result;
    const auto end = Patience::Clock::now() + 30s;
    while (!reloads.update([&result](const std::string& what, const std::string& error) {
        result = what + ": " + error;
    }) && Patience::Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(result, "events file " + path("events") + ": Is a directory");
}

TEST_F(EventOutputTest, StandardOutputIsNotOpenedAgain) {
    EventOutput output({"-", false}, lines_, patience_);
    ASSERT_EQ(output.open(), "");
    ReloadList reloads;
    output.reopen_with(reloads);
    EXPECT_TRUE(reloads.empty());
}

}  // namespace

}  // namespace qv::node
