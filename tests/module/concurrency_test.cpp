// Many calls at once: media on both legs, API commands and hang-ups race with each other.
// Run it under the thread sanitizer, too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/call_transfer.h"
#include "tests/support/call_uuids.h"
#include "tests/support/media_listener.h"
#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

using namespace std::chrono_literals;

class Concurrency : public ModuleTest {
  protected:
    static constexpr unsigned CALLS = 24;
    static constexpr std::uint32_t FRAMES = 50;
    static constexpr std::uint32_t SAMPLES = 160;

    Concurrency() : ModuleTest(), listener(std::make_unique<MediaListener>(node)) {}

    std::unique_ptr<host::Call> start(unsigned number) {
        host::CallOptions options;
        options.uuid = uuid_of(number);
        options.variables = {
            {"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "true"}, {"sip_call_id", "x"}};
        options.frame_time = 10ms;
        options.direction =
            number % 2 == 0 ? SWITCH_CALL_DIRECTION_INBOUND : SWITCH_CALL_DIRECTION_OUTBOUND;
        return host.start_call(std::move(options));
    }

    // Plays both legs on the call's own threads, with 10 ms per frame.
    static void play(host::Call& call) {
        host::MediaPlan plan;
        plan.read = host::play_silence(FRAMES, SAMPLES);
        plan.write = host::play_silence(FRAMES, SAMPLES);
        plan.threads = host::MediaThreads::OWN;
        call.start_media(std::move(plan));
    }

    // Two threads that issue commands until `stop` is set.
    std::vector<std::thread> start_operators(const std::atomic<bool>& stop) {
        std::vector<std::thread> operators;
        operators.reserve(2);
        for (int i = 0; i < 2; ++i) {
            operators.emplace_back([this, &stop] {
                command(stop, {"audio_activity stop", "features", "audio_activity start",
                               "detection start"});
            });
        }
        return operators;
    }

    // Issues commands for one call after the other until `stop` is set.
    void command(const std::atomic<bool>& stop, const std::vector<std::string>& commands) {
        for (unsigned i = 0; !stop; ++i) {
            const std::string& words = commands[(i / CALLS) % commands.size()];
            answers += api(uuid_of(i % CALLS) + " " + words).empty() ? 0U : 1U;
            std::this_thread::yield();
        }
    }

    // Waits for the last packet and checks that every call is complete.
    std::map<std::string, CallTransfer> finish() {
        std::map<std::string, CallTransfer> calls;
        for (const auto& [uuid, packets] : listener->finish()) {
            calls.emplace(uuid, CallTransfer(packets));
            EXPECT_EQ(calls[uuid].flaws(), "") << uuid;
        }
        EXPECT_EQ(calls.size(), CALLS);
        EXPECT_EQ(node.dropped(), 0U) << "the test's own socket was full";
        return calls;
    }

    // The API finds no call, and the channel-destroy handler finds no context.
    void expect_empty_registry() {
        host.events().wait_drained();
        host.log().clear();
        for (unsigned i = 0; i < CALLS; ++i) {
            EXPECT_EQ(api(uuid_of(i) + " features"), "");
            host.events().fire({SWITCH_EVENT_CHANNEL_DESTROY, {{"Unique-ID", uuid_of(i)}}, ""});
        }
        host.events().wait_drained();
        EXPECT_EQ(host.log().count("session is not found: "), CALLS);
        EXPECT_FALSE(host.log().contains("on channel destroy")) << "a context was left over";
    }

    void expect_balance() {
        const host::Report report = host.report();
        EXPECT_EQ(report.read_locks_held, 0U);
        EXPECT_EQ(report.bugs_attached, 0U);
        EXPECT_EQ(report.bugs_added, CALLS);
        EXPECT_EQ(report.bugs_closed, CALLS);
        EXPECT_EQ(report.sessions_alive, 0U);
    }

    std::atomic<unsigned> answers{0};
    std::unique_ptr<MediaListener> listener;
};

TEST_F(Concurrency, CallsThatPlayToTheirEndArriveWhole) {
    load();
    std::atomic<bool> stop{false};
    std::vector<std::thread> operators = start_operators(stop);
    std::vector<std::unique_ptr<host::Call>> calls;
    calls.reserve(CALLS);
    for (unsigned i = 0; i < CALLS; ++i) {
        calls.push_back(start(i));
        calls.back()->execute("quorvane");
        play(*calls.back());
    }
    for (const auto& call : calls) {
        EXPECT_TRUE(call->wait_media(20s));
    }
    stop = true;
    for (std::thread& thread : operators) {
        thread.join();
    }
    for (const auto& call : calls) {
        call->hangup();
    }
    for (const auto& [uuid, call] : finish()) {
        for (const LegTransfer& leg : call.legs) {
            EXPECT_EQ(leg.packets, FRAMES) << uuid;
            EXPECT_EQ(leg.samples, FRAMES * SAMPLES) << uuid;
        }
    }
    EXPECT_GT(answers, 0U);
    expect_empty_registry();
    expect_balance();
}

TEST_F(Concurrency, HangupsRaceWithMediaAndCommands) {
    load();
    std::atomic<bool> stop{false};
    std::vector<std::thread> operators = start_operators(stop);
    // Each of four threads runs its calls one after the other: start, media, hang-up.
    std::vector<std::thread> dialplans;
    dialplans.reserve(4);
    for (unsigned first = 0; first < 4; ++first) {
        dialplans.emplace_back([this, first] {
            for (unsigned i = first; i < CALLS; i += 4) {
                const auto call = start(i);
                call->execute("quorvane");
                play(*call);
                std::this_thread::sleep_for(std::chrono::milliseconds(20 + 5 * i));
                call->hangup();
            }
        });
    }
    for (std::thread& thread : dialplans) {
        thread.join();
    }
    stop = true;
    for (std::thread& thread : operators) {
        thread.join();
    }
    finish();
    expect_empty_registry();
    expect_balance();
}

// The start packet and API commands compete for the context's lock. Each request is in the start
// packet or in a control packet; none is lost.
TEST_F(Concurrency, RequestsRaceWithTheStartPacket) {
    load();
    for (unsigned i = 0; i < CALLS; ++i) {
        const auto call = start(i);
        const std::string uuid = call->uuid();
        std::thread request([&] { api(uuid + " audio_activity stop"); });
        call->execute("quorvane");
        request.join();
        EXPECT_EQ(api(uuid + " features"), "----aa\n");
        call->hangup();
    }
    for (const auto& [uuid, call] : finish()) {
        EXPECT_LE(call.controls.size(), 1U) << uuid;
    }
    expect_empty_registry();
    expect_balance();
}

TEST_F(Concurrency, UnloadsAndLoadsRaceWithTheMediaOfLiveCalls) {
    load();
    std::vector<std::unique_ptr<host::Call>> calls;
    calls.reserve(CALLS);
    for (unsigned i = 0; i < CALLS; ++i) {
        calls.push_back(start(i));
        calls.back()->execute("quorvane");
        play(*calls.back());
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(unload().unloaded);
        configure("");
        const host::LoadResult result = try_load();
        EXPECT_TRUE(result.loaded) << result.error;
    }
    for (const auto& call : calls) {
        EXPECT_TRUE(call->wait_media(20s));
        call->hangup();
    }
    listener->finish();
    expect_balance();
    EXPECT_TRUE(unload().left_memory);
}

}  // namespace

}  // namespace qv::tests
