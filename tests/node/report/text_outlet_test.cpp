#include "node/report/text_outlet.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <thread>

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class TextOutletTest : public testing::Test {
  protected:
    TextOutletTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "quorvane-outlet-XXXXXX";
        folder_ = mkdtemp(pattern.data());
        path_ = folder_ + "/text";
    }
    ~TextOutletTest() override {
        outlet_.reset();
        std::filesystem::remove_all(folder_);
    }

    void open(std::size_t most_bytes = 100) {
        auto file = std::make_unique<EventFile>();
        ASSERT_EQ(file->open(path_), "");
        outlet_ = std::make_unique<TextOutlet>(std::move(file), most_bytes);
    }
    bool written() const { return outlet_->wait(Clock::now() + 30s); }
    std::string text() const {
        std::ifstream file(path_);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string reopened() const {
        const auto end = Clock::now() + 30s;
        std::optional<std::string> result;
        while (!(result = outlet_->take_reopened()).has_value() && Clock::now() < end) {
            std::this_thread::sleep_for(1ms);
        }
        return result.value_or("never");
    }

    std::string folder_;
    std::string path_;
    std::unique_ptr<TextOutlet> outlet_;
};

TEST_F(TextOutletTest, TextIsWrittenInOrder) {
    open();
    EXPECT_TRUE(outlet_->add("one\n"));
    EXPECT_TRUE(outlet_->add("two\n"));
    EXPECT_TRUE(written());
    EXPECT_EQ(text(), "one\ntwo\n");
    EXPECT_EQ(outlet_->waiting_lines(), 0u);
}

TEST_F(TextOutletTest, TextWithoutAReaderWaitsUpToTheBoundAndIsNotLost) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    open();
    EXPECT_TRUE(outlet_->add(std::string(60, 'a') + '\n'));
    EXPECT_FALSE(outlet_->add(std::string(60, 'b') + '\n'));
    EXPECT_TRUE(outlet_->add("c\n"));
    const auto end = Clock::now() + 30s;
    while (outlet_->error().empty() && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(outlet_->error(), "no program reads it");
    EXPECT_EQ(outlet_->waiting_lines(), 2u);
    std::ifstream reader(path_);
    std::string line;
    std::getline(reader, line);
    EXPECT_EQ(line, std::string(60, 'a'));
    std::getline(reader, line);
    EXPECT_EQ(line, "c");
    EXPECT_TRUE(written());
    EXPECT_EQ(outlet_->error(), "");
}

TEST_F(TextOutletTest, TextLongerThanTheBoundIsTakenAlone) {
    open();
    const std::string line = std::string(1000, 'x') + '\n';
    EXPECT_TRUE(outlet_->add(line));
    EXPECT_TRUE(written());
    EXPECT_EQ(text(), line);
}

TEST_F(TextOutletTest, FileIsOpenedAgainAfterWhatWaits) {
    open();
    outlet_->add("one\n");
    EXPECT_TRUE(written());
    std::filesystem::rename(path_, path_ + ".1");
    outlet_->reopen();
    EXPECT_EQ(reopened(), "");
    outlet_->add("two\n");
    EXPECT_TRUE(written());
    EXPECT_EQ(text(), "two\n");
}

TEST_F(TextOutletTest, FileThatCannotBeOpenedAgainSaysWhy) {
    open();
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    outlet_->reopen();
    EXPECT_EQ(reopened(), "Is a directory");
}

}  // namespace

}  // namespace qv::node
