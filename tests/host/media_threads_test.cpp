// Calls that play media: their threads, their pace, and functions that race with them.
#include "host/media_threads.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/host/host_fixture.h"

namespace qv::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

class MediaThreadsTest : public HostTest {
  protected:
    MediaThreadsTest() { load_probe(); }

    static MediaPlan frames(std::uint32_t count, Pace pace,
                            MediaThreads threads = MediaThreads::POOL) {
        MediaPlan plan;
        plan.read = play_silence(count, 160);
        plan.write = play_silence(count, 160);
        plan.pace = pace;
        plan.threads = threads;
        return plan;
    }

    static MediaPlan endless(Pace pace, MediaThreads threads = MediaThreads::POOL) {
        const auto samples = std::make_shared<std::vector<std::int16_t>>(1600, std::int16_t{5});
        MediaPlan plan;
        plan.read = play(samples, 160, Repeat::FOREVER);
        plan.write = play(samples, 160, Repeat::FOREVER);
        plan.pace = pace;
        plan.threads = threads;
        return plan;
    }

    std::unique_ptr<Call> tapped_call(CallOptions options = {}) {
        auto call = host_.start_call(std::move(options));
        call->execute("probe");
        return call;
    }

    void expect_nothing_left() {
        host_.events().wait_drained();
        const Report report = host_.report();
        EXPECT_EQ(report.sessions_alive, 0u);
        EXPECT_EQ(report.bugs_attached, 0u);
        EXPECT_EQ(report.bugs_closed, report.bugs_added);
        EXPECT_EQ(report.read_locks_held, 0u);
        EXPECT_EQ(report.unlocks_without_lock, 0u);
        EXPECT_EQ(report.frames_altered, 0u);
    }
};

TEST_F(MediaThreadsTest, TheDirectionsOfACallPlayOnTwoThreads) {
    const auto call = tapped_call();
    call->start_media(frames(5, Pace::FREE_RUNNING));
    EXPECT_TRUE(call->wait_media(seconds(10)));
    call->hangup();
    EXPECT_TRUE(host_.log().contains("closed after 5 read and 5 write frames on two threads"));
}

TEST_F(MediaThreadsTest, ACallCanHaveThreadsOfItsOwn) {
    const auto call = tapped_call();
    call->start_media(frames(5, Pace::FREE_RUNNING, MediaThreads::OWN));
    EXPECT_TRUE(call->wait_media(seconds(10)));
    call->hangup();
    EXPECT_TRUE(host_.log().contains("closed after 5 read and 5 write frames on two threads"));
}

TEST_F(MediaThreadsTest, PacedFramesTakeTheirTime) {
    CallOptions options;
    options.frame_time = milliseconds(10);
    const auto call = tapped_call(options);
    const auto begin = Clock::now();
    call->start_media(frames(11, Pace::PACED));
    EXPECT_TRUE(call->wait_media(seconds(10)));
    EXPECT_GE(Clock::now() - begin, milliseconds(100));
    EXPECT_EQ(call->media_stats(Direction::READ).frames, 11u);
    EXPECT_EQ(call->media_stats(Direction::WRITE).bytes, 11u * 320);
}

TEST_F(MediaThreadsTest, ADelayHoldsTheFirstFrameBack) {
    const auto call = tapped_call();
    MediaPlan plan = frames(1, Pace::PACED);
    plan.delay = milliseconds(50);
    const auto begin = Clock::now();
    call->start_media(std::move(plan));
    EXPECT_TRUE(call->wait_media(seconds(10)));
    EXPECT_GE(Clock::now() - begin, milliseconds(50));
}

class CountingObserver : public FrameObserver {
  public:
    void played(Direction direction, const FrameResult& result,
                std::chrono::nanoseconds lateness) override {
        ++(direction == Direction::READ ? read_frames : write_frames);
        bytes += result.bytes;
        seen_by += result.bugs;
        in_time = in_time && lateness >= result.handling;
        punctual = punctual && lateness == std::chrono::nanoseconds::zero();
    }

    std::atomic<std::size_t> read_frames{0}, write_frames{0}, bytes{0}, seen_by{0};
    std::atomic<bool> in_time{true};   // never before the bugs were done
    std::atomic<bool> punctual{true};  // every lateness was 0
};

TEST_F(MediaThreadsTest, AnObserverHearsOfEveryFrameWithItsLateness) {
    const auto call = tapped_call();
    const auto observer = std::make_shared<CountingObserver>();
    MediaPlan plan = frames(3, Pace::PACED);
    plan.observer = observer;
    call->start_media(std::move(plan));
    EXPECT_TRUE(call->wait_media(seconds(10)));
    EXPECT_EQ(observer->read_frames, 3u);
    EXPECT_EQ(observer->write_frames, 3u);
    EXPECT_EQ(observer->bytes, 6u * 320);
    EXPECT_EQ(observer->seen_by, 6u);
    EXPECT_TRUE(observer->in_time);
    EXPECT_FALSE(observer->punctual);
}

TEST_F(MediaThreadsTest, FreeRunningFramesAreNeverLateForAnObserver) {
    const auto call = host_.start_call();
    const auto observer = std::make_shared<CountingObserver>();
    MediaPlan plan = frames(3, Pace::FREE_RUNNING);
    plan.observer = observer;
    call->start_media(std::move(plan));
    EXPECT_TRUE(call->wait_media(seconds(10)));
    EXPECT_EQ(observer->read_frames, 3u);
    EXPECT_EQ(observer->seen_by, 0u);
    EXPECT_TRUE(observer->punctual);
}

TEST_F(MediaThreadsTest, ADirectionWithoutASourceIsSilent) {
    const auto call = tapped_call();
    MediaPlan plan;
    plan.read = play_silence(3, 160);
    plan.pace = Pace::FREE_RUNNING;
    call->start_media(std::move(plan));
    EXPECT_TRUE(call->wait_media(seconds(10)));
    EXPECT_EQ(call->media_stats(Direction::READ).frames, 3u);
    EXPECT_EQ(call->media_stats(Direction::WRITE).frames, 0u);
}

TEST_F(MediaThreadsTest, ThePlayedSamplesArriveInOrderWithAShortLastFrame) {
    const auto samples = std::make_shared<std::vector<std::int16_t>>();
    for (std::int16_t i = 0; i < 10; ++i) {
        samples->push_back(i);
    }
    const auto source = play(samples, 4);
    std::uint8_t buffer[100];
    EXPECT_EQ(source->next(buffer, sizeof(buffer)), 8u);
    EXPECT_EQ(buffer[6], 3);
    EXPECT_EQ(source->next(buffer, sizeof(buffer)), 8u);
    EXPECT_EQ(source->next(buffer, sizeof(buffer)), 4u);
    EXPECT_EQ(buffer[2], 9);
    EXPECT_EQ(source->next(buffer, sizeof(buffer)), std::nullopt);
}

TEST_F(MediaThreadsTest, AStoppedPlanPlaysNoMore) {
    const auto call = tapped_call();
    call->start_media(endless(Pace::FREE_RUNNING));
    while (call->media_stats(Direction::READ).frames == 0) {
        std::this_thread::yield();
    }
    call->stop_media();
    const auto frames_then = call->media_stats(Direction::READ).frames;
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(call->media_stats(Direction::READ).frames, frames_then);
}

TEST_F(MediaThreadsTest, ANewPlanReplacesTheOldOne) {
    const auto call = tapped_call();
    call->start_media(endless(Pace::FREE_RUNNING));
    call->start_media(frames(2, Pace::FREE_RUNNING));
    EXPECT_TRUE(call->wait_media(seconds(10)));
}

TEST_F(MediaThreadsTest, HangupEndsEndlessMedia) {
    const auto call = tapped_call();
    call->start_media(endless(Pace::FREE_RUNNING));
    while (call->media_stats(Direction::WRITE).frames == 0) {
        std::this_thread::yield();
    }
    call->hangup();
    EXPECT_FALSE(call->wait_media(milliseconds(1)));
    expect_nothing_left();
}

TEST_F(MediaThreadsTest, ManyPacedCallsPlayAllTheirFrames) {
    std::vector<std::unique_ptr<Call>> calls;
    for (int i = 0; i < 100; ++i) {
        calls.push_back(tapped_call());
        calls.back()->start_media(frames(10, Pace::PACED));
    }
    for (const auto& call : calls) {
        EXPECT_TRUE(call->wait_media(seconds(30)));
    }
    for (const auto& call : calls) {
        EXPECT_EQ(call->media_stats(Direction::WRITE).frames, 10u);
    }
    calls.clear();
    expect_nothing_left();
    EXPECT_EQ(host_.report().frames_delivered, 2000u);
}

TEST_F(MediaThreadsTest, CallsApiCommandsAndHangupsRace) {
    std::atomic<bool> ending{false};
    std::thread api([&] {
        while (!ending) {
            host_.api("probe x");
        }
    });
    std::thread finder([&] {
        while (!ending) {
            const auto call = host_.start_call();
            auto* session =
                switch_core_session_perform_locate(call->uuid().c_str(), "", "", __LINE__);
            std::thread hangup([&call] { call->hangup(); });
            switch_core_session_rwunlock(session);
            hangup.join();
        }
    });
    for (int round = 0; round < 20; ++round) {
        std::vector<std::unique_ptr<Call>> calls;
        for (int i = 0; i < 8; ++i) {
            calls.push_back(tapped_call());
            calls.back()->start_media(
                endless(Pace::FREE_RUNNING, i < 6 ? MediaThreads::POOL : MediaThreads::OWN));
        }
        std::vector<std::thread> hangups;
        hangups.reserve(calls.size());
        for (auto& call : calls) {
            hangups.emplace_back([&call] { call->hangup(); });
        }
        for (auto& thread : hangups) {
            thread.join();
        }
    }
    ending = true;
    api.join();
    finder.join();
    expect_nothing_left();
}

TEST_F(MediaThreadsTest, ABugThatRefusesWhileBothDirectionsPlayIsClosedOnce) {
    for (int round = 0; round < 20; ++round) {
        const auto call = call_with({{"probe_refuse", round % 2 ? "3" : "4"}});
        call->execute("probe");
        call->start_media(frames(20, Pace::FREE_RUNNING));
        EXPECT_TRUE(call->wait_media(seconds(10)));
        call->hangup();
    }
    expect_nothing_left();
    EXPECT_EQ(host_.report().bugs_pruned, 20u);
}

TEST_F(MediaThreadsTest, EventsAndUnbindingRaceWithCalls) {
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            for (int round = 0; round < 50; ++round) {
                tapped_call()->hangup();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(host_.unload_module("mod_probe").unloaded);
    expect_nothing_left();
}

}  // namespace
}  // namespace qv::host
