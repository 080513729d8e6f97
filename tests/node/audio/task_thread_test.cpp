#include "node/audio/task_thread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

#include "quorvane_lib/mutex.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A gate that a task waits at until the test opens it.
class Gate {
  public:
    void open() {
        {
            const LockGuard lock(mutex_);
            open_ = true;
        }
        opened_.notify_all();
    }
    void pass() {
        const LockGuard lock(mutex_);
        while (!open_) {
            opened_.wait(mutex_);
        }
    }

  private:
    Mutex mutex_;
    Condition opened_;
    bool open_ QV_GUARDED_BY(mutex_) = false;
};

TEST(TaskThreadTest, TasksRunInTheirOrder) {
    std::vector<int> order;
    TaskThread tasks;
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(tasks.add([&order, i] { order.push_back(i); }));
    }
    ASSERT_TRUE(tasks.wait(Clock::now() + 30s));
    ASSERT_EQ(order.size(), 100u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(TaskThreadTest, ShortTaskRunsBeforeThoseThatWait) {
    Gate gate;
    std::atomic<bool> running{false};
    std::vector<int> order;
    TaskThread tasks;
    tasks.add([&] {
        running = true;
        gate.pass();
    });
    const auto end = Clock::now() + 30s;
    while (!running && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    tasks.add([&order] { order.push_back(1); });
    tasks.add_short([&order] { order.push_back(2); });
    EXPECT_EQ(tasks.waiting(), 2u);
    gate.open();
    ASSERT_TRUE(tasks.wait(Clock::now() + 30s));
    EXPECT_EQ(order, (std::vector<int>{2, 1}));
}

TEST(TaskThreadTest, WaitEndsWithItsTimeWhileATaskRuns) {
    Gate gate;
    TaskThread tasks;
    tasks.add([&gate] { gate.pass(); });
    EXPECT_FALSE(tasks.wait(Clock::now() + 10ms));
    gate.open();
    EXPECT_TRUE(tasks.wait(Clock::now() + 30s));
}

TEST(TaskThreadTest, TasksThatWaitStillRunAtTheEnd) {
    int runs = 0;
    {
        TaskThread tasks;
        for (int i = 0; i < 10; ++i) {
            tasks.add([&runs] { ++runs; });
        }
    }
    EXPECT_EQ(runs, 10);
}

TEST(TaskThreadTest, AbandonedTasksDoNotRunAndNobodyWaits) {
    const auto gate = std::make_shared<Gate>();
    const auto running = std::make_shared<std::atomic<bool>>(false);
    const auto runs = std::make_shared<std::atomic<int>>(0);
    {
        TaskThread tasks;
        tasks.add([gate, running, runs] {
            *running = true;
            gate->pass();
            ++*runs;
        });
        tasks.add([runs] { *runs += 100; });
        const auto end = Clock::now() + 30s;
        while (!*running && Clock::now() < end) {
            std::this_thread::sleep_for(1ms);
        }
        tasks.abandon();
        EXPECT_TRUE(tasks.abandoned());
        EXPECT_TRUE(tasks.wait(Clock::now()));
        EXPECT_FALSE(tasks.add([runs] { *runs += 100; }));
    }
    gate->open();
    const auto end = Clock::now() + 30s;
    while (*runs == 0 && Clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(*runs, 1);
}

}  // namespace

}  // namespace qv::node
