// Hundreds of calls that start, end and are destroyed while API threads send commands of
// all kinds to calls that live, die, are dead or never were; contexts that the API makes
// first, applications run twice, starts that fail. Run it under the sanitizers.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

constexpr unsigned CALL_THREADS = 4;
constexpr unsigned API_THREADS = 8;
constexpr unsigned CALLS_A_THREAD = 60;

const std::vector<std::string> WORDS = {
    "features",        "audio_activity start",      "audio_activity stop both",
    "detection start", "audio_activity start orig", "detection stop term start orig",
    "detection",       "audio_activity halt",       "nonsense"};

// The calls' UUIDs are counted through, so that any thread can name any of them.
std::string uuid_of(unsigned number) {
    char text[37];
    std::snprintf(text, sizeof(text), "57e55000-0000-4000-8000-%012x", number);
    return text;
}

class Stress : public ModuleTest {
  protected:
    // One call after the other, of all kinds.
    void run_calls(unsigned thread) {
        std::minstd_rand random(thread + 1);
        for (unsigned i = 0; i < CALLS_A_THREAD; ++i) {
            run_call(thread * CALLS_A_THREAD + i, random);
        }
        threads_left -= 1;
    }

    void run_call(unsigned number, std::minstd_rand& random) {
        host::CallOptions options;
        options.uuid = uuid_of(number);
        const auto kind = static_cast<unsigned>(random() % 6);
        options.variables = {{"quorvane_rule_id", "1"}, {"sip_call_id", "stress"}};
        if (kind == 0) {
            options.variables["quorvane_media_node"] = "no address";
        }
        if (kind == 1) {
            options.variables["sip_call_id"] = std::string(2000, 'x');  // Its start fails.
        }
        newest = number;
        const auto call = host.start_call(std::move(options));
        if (kind == 2) {
            api(uuid_of(number) + " audio_activity start");
        }
        if (kind != 3) {  // Of this kind only the API may speak.
            call->execute("quorvane");
        }
        if (kind == 4) {
            call->execute("quorvane");
        }
        play(*call, static_cast<unsigned>(random() % 8));
        call->hangup();
    }

    // Both legs at once, on threads of the call's own.
    static void play(host::Call& call, unsigned frames) {
        host::MediaPlan plan;
        plan.read = host::play_silence(frames, 160);
        plan.write = host::play_silence(frames, 160);
        plan.pace = host::Pace::free_running;
        plan.threads = host::MediaThreads::own;
        call.start_media(std::move(plan));
        if (frames % 2 == 0) {
            call.wait_media(std::chrono::seconds(10));
        }
    }

    // Mostly to calls that are alive or just gone.
    void run_commands(unsigned seed) {
        std::minstd_rand random(100 + seed);
        while (threads_left > 0) {
            const bool near = random() % 4 != 0;
            const unsigned around = newest + static_cast<unsigned>(random() % 8);
            const unsigned number = near ? around - 4 : static_cast<unsigned>(random() % 1000);
            api(uuid_of(number) + " " + WORDS[random() % WORDS.size()]);
        }
    }

    std::atomic<unsigned> threads_left{CALL_THREADS};
    std::atomic<unsigned> newest{0};
};

TEST_F(Stress, CallsOfAllKindsUnderCommandsOfAllKindsLeaveNothingBehind) {
    load("log_level=ERROR\n");
    host.log().set_recording(false);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < CALL_THREADS; ++i) {
        threads.emplace_back([this, i] { run_calls(i); });
    }
    for (unsigned i = 0; i < API_THREADS; ++i) {
        threads.emplace_back([this, i] { run_commands(i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    host.events().wait_drained();

    const host::Report report = host.report();
    EXPECT_EQ(report.read_locks_held, 0U);
    EXPECT_EQ(report.bugs_attached, 0U);
    EXPECT_EQ(report.bugs_added, report.bugs_closed);
    EXPECT_GT(report.bugs_refused, 0U);
    EXPECT_EQ(report.sessions_alive, 0U);
    EXPECT_EQ(report.frames_altered, 0U);
    // A module with a context left in its registry would stay mapped.
    EXPECT_TRUE(unload().left_memory);
}

}  // namespace

}  // namespace qv::tests
