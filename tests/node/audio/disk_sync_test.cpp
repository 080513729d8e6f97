#include "node/audio/disk_sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>

namespace qv::node {

namespace {

using namespace std::chrono_literals;

TEST(DiskSyncTest, WorksAgainAndAgain) {
    std::atomic<int> rounds{0};
    DiskSync sync(1ms, [&rounds] {
        ++rounds;
        return std::string();
    });
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (rounds < 3 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_GE(rounds, 3);
    EXPECT_TRUE(sync.finish(std::chrono::steady_clock::now() + 30s));
}

TEST(DiskSyncTest, EndsAtOnceAndWorksOnceMore) {
    std::atomic<int> rounds{0};
    DiskSync sync(1h, [&rounds] {
        ++rounds;
        return std::string();
    });
    EXPECT_TRUE(sync.finish(std::chrono::steady_clock::now() + 30s));
    EXPECT_EQ(rounds, 1);
}

TEST(DiskSyncTest, ErrorOfTheLastRoundIsNotMissed) {
    DiskSync sync(1h, [] { return std::string("Input/output error"); });
    EXPECT_TRUE(sync.finish(std::chrono::steady_clock::now() + 30s));
    EXPECT_EQ(sync.take_error(), "Input/output error");
}

TEST(DiskSyncTest, DiskThatStandsStillIsNotWaitedForForever) {
    const auto disk_goes_on = std::make_shared<std::promise<void>>();
    const std::shared_future<void> going = disk_goes_on->get_future().share();
    const auto left_behind = std::make_shared<std::atomic<bool>>(true);
    {
        DiskSync sync(1h, [going, left_behind] {
            going.wait();
            *left_behind = false;
            return std::string();
        });
        EXPECT_FALSE(sync.finish(std::chrono::steady_clock::now() + 5ms));
    }
    EXPECT_TRUE(*left_behind);
    disk_goes_on->set_value();
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (*left_behind && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_FALSE(*left_behind);
}

TEST(DiskSyncTest, ErrorIsTakenOnce) {
    std::atomic<bool> failing{true};
    DiskSync sync(
        1ms, [&failing] { return failing.exchange(false) ? "Input/output error" : std::string(); });
    std::string error;
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (error.empty() && std::chrono::steady_clock::now() < end) {
        error = sync.take_error();
    }
    EXPECT_EQ(error, "Input/output error");
    EXPECT_EQ(sync.take_error(), "");
    EXPECT_TRUE(sync.finish(std::chrono::steady_clock::now() + 30s));
}

TEST(DiskSyncTest, FolderThatIsThereCanBeSynced) {
    const std::string folder = std::filesystem::temp_directory_path();
    EXPECT_EQ(sync_folder(folder), "");
    EXPECT_EQ(sync_folder(folder + "/no-such-folder"), "No such file or directory");
}

}  // namespace

}  // namespace qv::node
