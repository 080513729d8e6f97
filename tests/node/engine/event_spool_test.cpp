#include "node/engine/event_spool.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace qv::node {

namespace {

namespace fs = std::filesystem;

EventSpool::Event event(const std::string& id, const std::string& text = R"({"a": "b c"})") {
    return std::make_shared<const EngineEvent>(EngineEvent{"call", "start", text, id});
}

class EventSpoolTest : public ::testing::Test {
  protected:
    EventSpoolTest() {
        std::string pattern = fs::temp_directory_path() / "spool-XXXXXX";
        folder_ = fs::path(mkdtemp(pattern.data())) / "spool";
    }
    ~EventSpoolTest() override { fs::remove_all(folder_.parent_path()); }
    EventSpoolTest(const EventSpoolTest&) = delete;
    EventSpoolTest& operator=(const EventSpoolTest&) = delete;

    // Opens the folder in place of the program that used it.
    void open() {
        spool_.reset();
        spool_ = std::make_unique<EventSpool>(folder_);
        found_.clear();
        EXPECT_EQ(spool_->open([this](const EventSpool::Event& each) { found_.push_back(each); }),
                  "");
    }

    std::string ids() const {
        std::string ids;
        for (const EventSpool::Event& each : found_) {
            ids += each->id + ' ';
        }
        return ids;
    }

    std::size_t files() const {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(folder_)) {
            count += entry.path().extension() == ".events" ? 1 : 0;
        }
        return count;
    }

    fs::path folder_;
    std::unique_ptr<EventSpool> spool_;
    std::vector<EventSpool::Event> found_;
};

TEST_F(EventSpoolTest, EventsOfAnEarlierRunAreFoundInTheirOrder) {
    open();
    EXPECT_EQ(spool_->keep({event("x-1"), event("x-2")}), "");
    EXPECT_EQ(spool_->keep({event("x-3")}), "");
    open();
    ASSERT_EQ(ids(), "x-1 x-2 x-3 ");
    EXPECT_EQ(found_[0]->call, "call");
    EXPECT_EQ(found_[0]->kind, "start");
    EXPECT_EQ(found_[0]->text, R"({"a": "b c"})");
}

TEST_F(EventSpoolTest, ReleasedEventsAreNotFoundAgain) {
    open();
    spool_->keep({event("x-1"), event("x-2"), event("x-3")});
    EXPECT_EQ(spool_->release({"x-2"}), "");
    open();
    EXPECT_EQ(ids(), "x-1 x-3 ");
    EXPECT_EQ(spool_->release({"x-1"}), "");
    open();
    EXPECT_EQ(ids(), "x-3 ");
}

TEST_F(EventSpoolTest, FileWithoutKeptEventsIsRemoved) {
    open();
    spool_->keep({event("x-1", std::string(2 << 20, 'a'))});
    spool_->keep({event("x-2")});
    EXPECT_EQ(files(), 2U);
    spool_->release({"x-1"});
    EXPECT_EQ(files(), 1U);
    spool_->release({"x-2"});
    open();
    EXPECT_EQ(files(), 0U);
}

TEST_F(EventSpoolTest, FileThatTheLastNoteFillsIsRemoved) {
    open();
    const std::string line = "+ x-1 call start \n";
    spool_->keep({event("x-1", std::string((1 << 20) - line.size() - 1, 'a'))});
    EXPECT_EQ(spool_->release({"x-1"}), "");
    EXPECT_EQ(files(), 0U);
    spool_->keep({event("x-2")});
    open();
    EXPECT_EQ(ids(), "x-2 ");
}

TEST_F(EventSpoolTest, OnlyTheLastFileIsOpen) {
    const auto open_files = [] {
        const fs::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    open();
    const auto before = open_files();
    for (int number = 0; number < 8; ++number) {
        const std::string id = std::to_string(number);
        EXPECT_EQ(spool_->keep({event(id, std::string(1 << 20, 'x'))}), "");
        EXPECT_EQ(spool_->keep({event(id + "-small")}), "");
    }
    EXPECT_GE(files(), 8U);
    EXPECT_EQ(open_files(), before + 1);
    EXPECT_EQ(spool_->release({"0", "1", "2"}), "");
    EXPECT_EQ(open_files(), before + 1);
    open();
    EXPECT_EQ(open_files(), before);
    EXPECT_EQ(ids(), "0-small 1-small 2-small 3 3-small 4 4-small 5 5-small 6 6-small 7 7-small ");
}

TEST_F(EventSpoolTest, NewEventsComeAfterThoseOfEarlierRuns) {
    open();
    spool_->keep({event("x-1")});
    open();
    spool_->keep({event("y-1")});
    open();
    EXPECT_EQ(ids(), "x-1 y-1 ");
}

TEST_F(EventSpoolTest, LineThatWasCutHarmsNoOther) {
    open();
    spool_->keep({event("x-1"), event("x-2")});
    spool_.reset();
    std::ofstream(folder_ / "1.events", std::ios::app) << "+ x-3 call start {\"cu";
    open();
    EXPECT_EQ(ids(), "x-1 x-2 ");
    spool_->release({"x-2"});
    open();
    EXPECT_EQ(ids(), "x-1 ");
}

// Whoever may do everything may read everything, so the spool is opened as somebody else.
class Nobody {
  public:
    explicit Nobody(const fs::path& folder) {
        if (geteuid() == 0) {
            changed_ = ::chown(folder.c_str(), NOBODY, NOBODY) == 0;
            for (const auto& entry : fs::recursive_directory_iterator(folder)) {
                changed_ = ::chown(entry.path().c_str(), NOBODY, NOBODY) == 0 && changed_;
            }
            changed_ = changed_ && seteuid(NOBODY) == 0;
        }
    }
    ~Nobody() {
        if (geteuid() != getuid()) {
            EXPECT_EQ(seteuid(0), 0);
        }
    }
    Nobody(const Nobody&) = delete;
    Nobody& operator=(const Nobody&) = delete;

    bool changed() const { return changed_; }

  private:
    static constexpr uid_t NOBODY = 65534;
    bool changed_ = true;
};

TEST_F(EventSpoolTest, FileThatCannotBeReadKeepsItsEvents) {
    open();
    spool_->keep({event("x-1")});
    spool_.reset();
    const fs::path file = folder_ / "1.events";
    fs::permissions(file, fs::perms::owner_write);
    std::string error;
    {
        const Nobody nobody(folder_.parent_path());
        if (!nobody.changed()) {
            GTEST_SKIP() << "the user cannot be changed here";
        }
        error = EventSpool(folder_).open([](const EventSpool::Event& /*event*/) {});
    }
    EXPECT_NE(error.find("1.events: Permission denied"), std::string::npos) << error;
    fs::permissions(file, fs::perms::owner_all);
    open();
    EXPECT_EQ(ids(), "x-1 ");
}

TEST_F(EventSpoolTest, FolderInUseIsRefused) {
    open();
    EventSpool second(folder_);
    EXPECT_NE(second.open([](const EventSpool::Event& /*event*/) {}), "");
}

TEST_F(EventSpoolTest, FolderThatCannotBeMadeIsNamed) {
    EventSpool spool("/proc/none/spool");
    const std::string error = spool.open([](const EventSpool::Event& /*event*/) {});
    EXPECT_NE(error.find("/proc/none/spool"), std::string::npos) << error;
}

}  // namespace

}  // namespace qv::node
