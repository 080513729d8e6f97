// Many calls at once: media on both legs, API commands and hang-ups race with each other.
// Run it under the thread sanitizer, too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/module_test.h"

// The module closes its socket at shutdown beside calls that still send, and no lock stands
// between the two: a frame costs no lock. The thread sanitizer counts that as a race on the
// descriptor. Intended; it alone is passed over.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the name is given.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:qv::net::Socket::close\n";
}

namespace qv::tests {

namespace {

using namespace std::chrono_literals;

std::uint32_t u32(const Bytes& packet, std::size_t offset) {
    return static_cast<std::uint32_t>(packet[offset] | packet[offset + 1] << 8 |
                                      packet[offset + 2] << 16) |
           static_cast<std::uint32_t>(packet[offset + 3]) << 24;
}

// What the node saw of one leg, in the order of the packets.
struct Leg {
    std::uint32_t packets = 0;
    std::uint32_t samples = 0;
    std::uint32_t gaps = 0;

    void take(const Bytes& packet) {
        const bool next = u32(packet, 40) == packets + 1 && u32(packet, 44) == samples;
        gaps += next ? 0U : 1U;
        packets = u32(packet, 40);
        samples = u32(packet, 44) + static_cast<std::uint32_t>(packet[48] | packet[49] << 8);
    }
};

// What the node saw of one call.
struct SeenCall {
    unsigned starts = 0;
    unsigned terminates = 0;
    unsigned controls = 0;
    unsigned others = 0;
    unsigned data_before_start = 0;
    unsigned data_after_terminate = 0;
    Leg legs[2];

    void take(const Bytes& packet) {
        switch (packet[4]) {
            case 0x81:
                ++starts;
                break;
            case 0x82:
                ++terminates;
                break;
            case 0x83:
                data_before_start += starts == 0 ? 1U : 0U;
                data_after_terminate += terminates != 0 ? 1U : 0U;
                legs[packet[7] >> 7].take(packet);
                break;
            case 0x84:
                ++controls;
                break;
            default:
                ++others;
                break;
        }
    }
};

// Keeps receiving while the calls run; the calls by their UUIDs.
class Listener {
  public:
    explicit Listener(MediaNode& node) : node_(node), thread_([this] { run(); }) {}
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() {
        if (thread_.joinable()) {
            finish();
        }
    }

    // Waits until nothing comes any more.
    const std::map<std::string, SeenCall>& finish() {
        finishing_ = true;
        thread_.join();
        return calls_;
    }

  private:
    void run() {
        while (true) {
            const bool last_round = finishing_;
            const Bytes packet = node_.receive(100ms);
            if (packet.size() >= 40) {
                calls_[field(packet, 16, 16)].take(packet);
            } else if (last_round) {
                return;
            }
        }
    }

    MediaNode& node_;
    std::atomic<bool> finishing_{false};
    std::map<std::string, SeenCall> calls_;
    std::thread thread_;  // last: it uses all above
};

class Concurrency : public ModuleTest {
  protected:
    static constexpr unsigned CALLS = 24;
    static constexpr std::uint32_t FRAMES = 50;
    static constexpr std::uint32_t SAMPLES = 160;

    Concurrency() : ModuleTest(), listener(std::make_unique<Listener>(node)) {}

    static std::string uuid_of(unsigned number) {
        char text[37];
        std::snprintf(text, sizeof(text), "c0ffee00-0000-4000-8000-%012x", number);
        return text;
    }

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

    // Both legs on threads of the call's own, at 10 ms a frame.
    static void play(host::Call& call) {
        host::MediaPlan plan;
        plan.read = host::play_silence(FRAMES, SAMPLES);
        plan.write = host::play_silence(FRAMES, SAMPLES);
        plan.threads = host::MediaThreads::own;
        call.start_media(std::move(plan));
    }

    // Issues commands for call after call until told to stop.
    void command(const std::atomic<bool>& stop, const std::vector<std::string>& commands) {
        for (unsigned i = 0; !stop; ++i) {
            const std::string& words = commands[(i / CALLS) % commands.size()];
            answers += api(uuid_of(i % CALLS) + " " + words).empty() ? 0U : 1U;
            std::this_thread::yield();
        }
    }

    // Every call started and ended once, each leg without a gap.
    void expect_whole_calls(const std::map<std::string, SeenCall>& calls) {
        EXPECT_EQ(calls.size(), CALLS);
        for (const auto& [uuid, call] : calls) {
            EXPECT_EQ(call.starts, 1U) << uuid;
            EXPECT_EQ(call.terminates, 1U) << uuid;
            EXPECT_EQ(call.others, 0U) << uuid;
            EXPECT_EQ(call.data_before_start, 0U) << uuid;
            EXPECT_EQ(call.data_after_terminate, 0U) << uuid;
            EXPECT_EQ(call.legs[0].gaps + call.legs[1].gaps, 0U) << uuid;
        }
    }

    // The API finds no call, the ends of their channels find no context.
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
    std::unique_ptr<Listener> listener;
};

const std::vector<std::string> COMMANDS = {"audio_activity stop", "features",
                                           "audio_activity start", "detection start"};

TEST_F(Concurrency, CallsThatPlayToTheirEndArriveWhole) {
    load();
    std::atomic<bool> stop{false};
    std::vector<std::thread> operators;
    operators.reserve(2);
    for (int i = 0; i < 2; ++i) {
        operators.emplace_back([&] { command(stop, COMMANDS); });
    }
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
    const std::map<std::string, SeenCall>& seen = listener->finish();
    expect_whole_calls(seen);
    for (const auto& [uuid, call] : seen) {
        for (const Leg& leg : call.legs) {
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
    std::vector<std::thread> operators;
    operators.reserve(2);
    for (int i = 0; i < 2; ++i) {
        operators.emplace_back([&] { command(stop, COMMANDS); });
    }
    // Four threads run their calls one after the other: start, media, hang-up in between.
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
    expect_whole_calls(listener->finish());
    expect_empty_registry();
    expect_balance();
}

// The start packet and the commands before it meet on the context's lock: a request is in
// the start packet or in a control packet, and none is lost.
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
    const std::map<std::string, SeenCall>& seen = listener->finish();
    expect_whole_calls(seen);
    for (const auto& [uuid, call] : seen) {
        EXPECT_LE(call.controls, 1U) << uuid;
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
        EXPECT_TRUE(try_load().loaded);
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
