#include "node/audio/background_store.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "quorvane_lib/mutex.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Samples = std::vector<std::int16_t>;

// A disk that can stand still, as the test and the writer thread see it.
class Disk {
  public:
    void stop() {
        const LockGuard lock(mutex_);
        stopped_ = true;
    }
    void go_on() {
        {
            const LockGuard lock(mutex_);
            stopped_ = false;
        }
        going_.notify_all();
    }
    // Waits while the disk stands still.
    void reach() {
        const LockGuard lock(mutex_);
        while (stopped_) {
            reached_ = true;
            going_.wait(mutex_);
        }
    }
    // Whether somebody has reached it since it stands still.
    bool reached() {
        const LockGuard lock(mutex_);
        return reached_;
    }
    void append(const std::string& name, const Samples& samples) {
        const LockGuard lock(mutex_);
        files_[name].insert(files_[name].end(), samples.begin(), samples.end());
    }
    // A file has ended, on this thread.
    void note_end() {
        const LockGuard lock(mutex_);
        ends_.push_back(std::this_thread::get_id());
    }
    std::vector<std::thread::id> ends() {
        const LockGuard lock(mutex_);
        return ends_;
    }
    Samples read(const std::string& name) {
        const LockGuard lock(mutex_);
        return files_[name];
    }

  private:
    Mutex mutex_;
    Condition going_;
    bool stopped_ QV_GUARDED_BY(mutex_) = false;
    bool reached_ QV_GUARDED_BY(mutex_) = false;
    std::map<std::string, Samples> files_ QV_GUARDED_BY(mutex_);
    std::vector<std::thread::id> ends_ QV_GUARDED_BY(mutex_);
};

// A file whose name begins with "bad" fails when it is written; for "short", memory is short then.
class DiskFile : public AudioFile {
  public:
    DiskFile(std::shared_ptr<Disk> disk, const std::string& name)
        : disk_(std::move(disk)), name_(name) {}
    ~DiskFile() override { disk_->note_end(); }

    bool write(const std::int16_t* samples, std::size_t count) override {
        disk_->reach();
        if (name_.rfind("bad", 0) == 0) {
            error_ = "no good";
            return false;
        }
        if (name_.rfind("short", 0) == 0) {
            throw std::bad_alloc();
        }
        disk_->append(name_, {samples, samples + count});
        return true;
    }
    bool write_silence(std::uint64_t count) override { return write(Samples(count).data(), count); }
    bool close() override {
        disk_->reach();
        return error_.empty();
    }
    const std::string& path() const override { return name_; }
    const std::string& error() const override { return error_; }

  private:
    std::shared_ptr<Disk> disk_;
    std::string name_;
    std::string error_;
};

class DiskStore : public AudioStore {
  public:
    explicit DiskStore(std::shared_ptr<Disk> disk) : disk_(std::move(disk)) {}

    bool exists(const std::string& /*name*/) const override { return false; }
    std::unique_ptr<AudioFile> create(const std::string& name, int /*sample_rate*/,
                                      int /*channels*/) override {
        disk_->reach();
        if (name == "uncreated") {
            throw std::bad_alloc();
        }
        return std::make_unique<DiskFile>(disk_, name == "taken" ? "folder/taken-2" : name);
    }
    std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                  std::string text) override {
        disk_->reach();
        disk_->append(name, Samples(text.size()));
        return std::make_shared<PendingFile>(PendingFile{{"folder/" + name, ""}, true});
    }
    std::size_t open_files() const override { return 7; }

  private:
    std::shared_ptr<Disk> disk_;
};

class BackgroundStoreTest : public testing::Test {
  protected:
    BackgroundStoreTest() { restart({}); }

    void restart(const BackgroundStore::Options& options) {
        store_ = std::make_unique<BackgroundStore>(std::make_unique<DiskStore>(disk_), "folder",
                                                   options);
    }
    static bool put(AudioFile& file, Samples samples) { return file.take(samples); }
    void finish() {
        while (!store_->wait(Clock::now() + 30s)) {
        }
        store_->update();
    }

    std::shared_ptr<Disk> disk_ = std::make_shared<Disk>();
    std::unique_ptr<BackgroundStore> store_;
};

TEST_F(BackgroundStoreTest, FilesAreWrittenInOrder) {
    const auto one = store_->create("one", 8000, 1);
    const auto two = store_->create("two", 8000, 1);
    for (std::int16_t i = 0; i < 1000; ++i) {
        put(*one, {i});
        put(*two, {i, i});
    }
    one->write_silence(2);
    put(*one, {7});
    finish();
    ASSERT_EQ(disk_->read("one").size(), 1003u);
    EXPECT_EQ(disk_->read("one")[999], 999);
    EXPECT_EQ(disk_->read("one")[1001], 0);
    EXPECT_EQ(disk_->read("one")[1002], 7);
    EXPECT_EQ(disk_->read("two").size(), 2000u);
    EXPECT_EQ(one->path(), "folder/one");
    EXPECT_EQ(store_->figures().created_files, 2u);
    EXPECT_EQ(store_->figures().open_files, 7u);
    EXPECT_EQ(store_->figures().waiting_bytes, 0u);
}

TEST_F(BackgroundStoreTest, DiskThatStandsStillDelaysNobodyAndLosesNothing) {
    disk_->stop();
    const auto file = store_->create("one", 8000, 1);
    for (std::int16_t i = 0; i < 1000; ++i) {
        put(*file, Samples(1000, i));
    }
    file->close();
    EXPECT_TRUE(disk_->read("one").empty());
    EXPECT_TRUE(file->completing());
    EXPECT_GT(store_->figures().waiting_bytes, 2'000'000u);
    disk_->go_on();
    finish();
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(disk_->read("one").size(), 1'000'000u);
    EXPECT_EQ(disk_->read("one")[999'999], 999);
    EXPECT_EQ(file->dropped_samples(), 0u);
}

TEST_F(BackgroundStoreTest, WhatFindsNoMemoryBecomesSilenceOfItsLength) {
    restart({10'000});
    disk_->stop();
    const auto file = store_->create("one", 8000, 1);
    for (std::int16_t i = 1; i <= 10; ++i) {
        put(*file, Samples(1000, i));
    }
    const std::uint64_t dropped = file->dropped_samples();
    EXPECT_GT(dropped, 4000u);
    EXPECT_LT(dropped, 8000u);
    EXPECT_EQ(store_->figures().dropped_bytes, 2 * dropped);
    disk_->go_on();
    finish();
    put(*file, {11});
    finish();
    const Samples written = disk_->read("one");
    ASSERT_EQ(written.size(), 10'001u);
    EXPECT_EQ(written[9'999 - dropped], static_cast<std::int16_t>(10 - dropped / 1000));
    EXPECT_EQ(written[10'000 - dropped], 0);
    EXPECT_EQ(written[9'999], 0);
    EXPECT_EQ(written[10'000], 11);
}

TEST_F(BackgroundStoreTest, FileThatIsClosedAtTheBoundHasItsWholeLength) {
    restart({10'000});
    disk_->stop();
    const auto file = store_->create("one", 8000, 1);
    for (std::int16_t i = 1; i <= 10; ++i) {
        put(*file, Samples(1000, i));
    }
    file->close();
    disk_->go_on();
    finish();
    EXPECT_EQ(disk_->read("one").size(), 10'000u);
}

TEST_F(BackgroundStoreTest, FileThatBeginsAtTheBoundIsWrittenLater) {
    restart({550});  // Room for two jobs.
    disk_->stop();
    const auto one = store_->create("one", 8000, 1);
    const auto two = store_->create("two", 8000, 1);
    EXPECT_TRUE(put(*two, {1, 2}));
    EXPECT_EQ(two->dropped_samples(), 2u);
    disk_->go_on();
    finish();
    put(*two, {3});
    finish();
    EXPECT_EQ(disk_->read("two"), (Samples{0, 0, 3}));
    EXPECT_EQ(two->error(), "");
}

TEST_F(BackgroundStoreTest, ReaderOfACaptureWaitsForRoom) {
    restart({10'000, [] { return true; }});
    disk_->stop();
    std::thread helper([this] {
        std::this_thread::sleep_for(20ms);
        disk_->go_on();
    });
    const auto file = store_->create("one", 8000, 1);
    for (std::int16_t i = 0; i < 100; ++i) {
        put(*file, Samples(1000, i));
    }
    helper.join();
    finish();
    EXPECT_EQ(disk_->read("one").size(), 100'000u);
    EXPECT_EQ(file->dropped_samples(), 0u);
}

TEST_F(BackgroundStoreTest, WaitForRoomEndsWhenItIsInterrupted) {
    int asked = 0;
    restart({10'000, [&asked] { return ++asked < 2; }});
    disk_->stop();
    const auto file = store_->create("one", 8000, 1);
    for (std::int16_t i = 0; i < 6; ++i) {
        put(*file, Samples(1000, i));
    }
    EXPECT_GE(asked, 2);
    disk_->go_on();
    finish();
    EXPECT_EQ(disk_->read("one").size(), 6'000u);
    EXPECT_EQ(file->dropped_samples(), 0u);
}

TEST_F(BackgroundStoreTest, FailureComesBack) {
    const auto file = store_->create("bad", 8000, 1);
    EXPECT_TRUE(put(*file, {1}));
    finish();
    EXPECT_EQ(file->error(), "no good");
    EXPECT_FALSE(put(*file, {2}));
    EXPECT_FALSE(file->close());
    finish();
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->error(), "no good");
}

TEST_F(BackgroundStoreTest, ShortMemoryEndsOneFileAndNotTheProgram) {
    const auto bad = store_->create("short", 8000, 1);
    const auto worse = store_->create("uncreated", 8000, 1);
    const auto good = store_->create("good", 8000, 1);
    put(*bad, {1});
    put(*worse, {1});
    put(*good, {1});
    worse->write_silence(1);
    bad->close();
    worse->close();
    finish();
    EXPECT_EQ(bad->error(), "no memory");
    EXPECT_EQ(worse->error(), "no memory");
    EXPECT_FALSE(bad->completing());
    EXPECT_FALSE(worse->completing());
    EXPECT_EQ(good->error(), "");
    EXPECT_EQ(disk_->read("good"), (Samples{1}));
}

TEST_F(BackgroundStoreTest, FileThatGotAnotherNameIsKnownByIt) {
    const auto file = store_->create("taken", 8000, 1);
    finish();
    EXPECT_EQ(file->path(), "folder/taken-2");
    EXPECT_TRUE(store_->exists("taken-2"));
    EXPECT_TRUE(store_->exists("taken"));
}

TEST_F(BackgroundStoreTest, MemoryThatIsKeptForLaterBlocksIsBounded) {
    constexpr std::uint64_t MIB = 1 << 20;
    disk_->stop();
    const auto file = store_->create("one", 8000, 1);
    for (int i = 0; i < 40; ++i) {
        put(*file, Samples(2 * MIB));  // 4 MiB each.
    }
    disk_->go_on();
    finish();
    EXPECT_GE(store_->figures().spare_bytes, 32 * MIB);
    EXPECT_LE(store_->figures().spare_bytes, 64 * MIB);
}

TEST_F(BackgroundStoreTest, SmallFileIsWrittenByTheWriter) {
    disk_->stop();
    const auto text = store_->write_text("picture", "12345");
    EXPECT_TRUE(store_->exists("picture"));
    EXPECT_FALSE(text->complete);
    EXPECT_EQ(store_->figures().incomplete_files, 1u);
    disk_->go_on();
    finish();
    EXPECT_TRUE(text->complete);
    EXPECT_EQ(text->report.path, "folder/picture");
    EXPECT_EQ(text->report.error, "");
    EXPECT_EQ(disk_->read("picture").size(), 5u);
    EXPECT_EQ(store_->figures().incomplete_files, 0u);
}

TEST_F(BackgroundStoreTest, SmallFileThatFindsNoRoomOrADiskThatWasGivenUpFails) {
    restart({10'000});
    disk_->stop();
    const auto waiting = store_->write_text("waiting", "12345");
    const auto large = store_->write_text("large", std::string(20'000, 'x'));
    EXPECT_TRUE(large->complete);
    EXPECT_EQ(large->report.error, "no memory was left while it waited for the disk");
    store_->abandon("gone");
    EXPECT_TRUE(waiting->complete);
    EXPECT_EQ(waiting->report.error, "gone");
    EXPECT_EQ(store_->write_text("late", "x")->report.error, "the disk was given up");
    disk_->go_on();
}

TEST_F(BackgroundStoreTest, NamesAreKnownWithoutTheDisk) {
    disk_->stop();
    store_->add_name("there");
    const auto file = store_->create("new", 8000, 1);
    EXPECT_TRUE(store_->exists("there"));
    EXPECT_TRUE(store_->exists("new"));
    EXPECT_FALSE(store_->exists("other"));
    disk_->go_on();
}

TEST_F(BackgroundStoreTest, WaitEndsWhenTheTimeHasCome) {
    disk_->stop();
    const auto file = store_->create("one", 8000, 1);
    EXPECT_FALSE(store_->wait(Clock::now() + 5ms));
    disk_->go_on();
}

TEST_F(BackgroundStoreTest, FilesOnADiskThatDoesNotComeBackAreGivenUp) {
    disk_->stop();
    {
        const auto file = store_->create("one", 8000, 1);
        put(*file, {1});
        file->close();
        store_->abandon("gone");
        EXPECT_FALSE(file->completing());
        EXPECT_EQ(file->error(), "gone");
        EXPECT_FALSE(put(*file, {2}));
    }
    store_.reset();  // Does not wait.
    disk_->go_on();
}

TEST_F(BackgroundStoreTest, FileThatIsGivenUpWhileItIsCompletedEndsOnce) {
    const auto file = store_->create("one", 8000, 1);
    finish();
    disk_->stop();
    file->close();
    const auto end = Clock::now() + 30s;
    while (!disk_->reached() && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    store_->abandon("gone");
    disk_->go_on();
    finish();
    EXPECT_EQ(store_->figures().incomplete_files, 0u);
}

// Their ends would wait for the disk, and use what belongs to the writer.
TEST_F(BackgroundStoreTest, FilesThatAreGivenUpEndOnTheWriterThread) {
    {
        const auto file = store_->create("one", 8000, 1);
        finish();
        disk_->stop();
        put(*file, {1});
        store_->abandon("gone");
    }
    store_.reset();
    EXPECT_TRUE(disk_->ends().empty());
    disk_->go_on();
    const auto end = Clock::now() + 30s;
    while (disk_->ends().empty() && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(disk_->ends().size(), 1u);
    EXPECT_NE(disk_->ends()[0], std::this_thread::get_id());
}

TEST_F(BackgroundStoreTest, EndWaitsForWhatIsQueued) {
    {
        const auto file = store_->create("one", 8000, 1);
        for (int i = 0; i < 100; ++i) {
            put(*file, Samples(1000, 1));
        }
    }
    store_.reset();
    EXPECT_EQ(disk_->read("one").size(), 100'000u);
}

}  // namespace

}  // namespace qv::node
