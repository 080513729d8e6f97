// Several threads do at random what a host and its users do, on calls that share one key: their
// UUIDs differ, and all decode to the same bytes. Whatever the order, nothing may be left behind.
// Run it under the thread sanitizer and the address sanitizer, too.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/media_listener.h"
#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

using host::Direction;

constexpr unsigned CALL_THREADS = 3;
constexpr unsigned CALLS_PER_THREAD = 50;

// One for each thread that makes calls: the host knows one call of a UUID at a time.
constexpr std::array<const char*, CALL_THREADS> TWINS = {"3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37",
                                                         "3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37",
                                                         "3b9f6a527c1e4d809f2be4a1c05d8e37@host"};

constexpr std::array<const char*, 6> COMMANDS = {
    " audio_activity start", " audio_activity stop orig",
    " detection start term", " features",
    " detection stop",       " nonsense"};

class Storm : public ModuleTest {
  protected:
    // Makes calls one after the other, each with its frames and its end at some point.
    void run_calls(unsigned thread) {
        std::minstd_rand random(thread + 1);
        for (unsigned i = 0; i < CALLS_PER_THREAD; ++i) {
            host::CallOptions options;
            options.uuid = TWINS[thread];
            options.variables = {{"quorvane_rule_id", "1"}, {"sip_call_id", "storm"}};
            const auto call = host.start_call(std::move(options));
            std::thread outsider([&call, remove = random() % 4 == 0] {
                if (remove) {
                    call->remove_bugs();
                }
            });
            run_call(*call, random);
            outsider.join();
            call->hangup();
            EXPECT_TRUE(node.wait_for_room());
        }
        threads_left -= 1;
    }

    static void run_call(host::Call& call, std::minstd_rand& random) {
        const Bytes frame(320);
        for (auto steps = random() % 12; steps > 0; --steps) {
            switch (random() % 4) {
                case 0:
                    call.execute("quorvane");
                    break;
                case 1:
                    call.feed(Direction::WRITE, frame.data(), frame.size());
                    break;
                default:
                    call.feed(Direction::READ, frame.data(), frame.size());
                    break;
            }
        }
    }

    // Channel-destroy events that belong to no call that has just ended.
    void send_events() {
        for (unsigned i = 0; threads_left > 0; ++i) {
            host.events().fire(
                {SWITCH_EVENT_CHANNEL_DESTROY, {{"Unique-ID", TWINS[i % CALL_THREADS]}}, ""});
            host.events().wait_drained();
        }
    }

    void send_commands() {
        std::minstd_rand random(100);
        while (threads_left > 0) {
            api(std::string(TWINS[random() % CALL_THREADS]) + COMMANDS[random() % COMMANDS.size()]);
        }
    }

    void reload() {
        while (threads_left > 0) {
            if (unload().unloaded) {  // The host refuses while an application runs.
                EXPECT_TRUE(try_load().loaded);
                reloads += 1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    template <typename... Others>
    void run_storm(Others... others) {
        configure("media_node=" + node.address() + "\nlog_level=DEBUG\n");
        ASSERT_TRUE(try_load().loaded);
        host.log().set_recording(false);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < CALL_THREADS; ++i) {
            threads.emplace_back([this, i] { run_calls(i); });
        }
        (threads.emplace_back(others), ...);
        for (std::thread& thread : threads) {
            thread.join();
        }
        host.events().wait_drained();
        expect_nothing_left_behind();
    }

    void expect_nothing_left_behind() {
        const host::Report report = host.report();
        EXPECT_GT(report.bugs_added, 0U);
        EXPECT_EQ(report.bugs_added, report.bugs_closed);
        EXPECT_EQ(report.bugs_attached, 0U);
        EXPECT_EQ(report.sessions_alive, 0U);
        EXPECT_TRUE(unload().left_memory) << "a context or its bug was left over";
    }

    MediaListener listener{node};
    std::atomic<unsigned> threads_left{CALL_THREADS};
    unsigned reloads = 0;
};

TEST_F(Storm, EveryStreamOfTwinsHasItsEndAndNothingIsLeftBehind) {
    run_storm([this] { send_events(); }, [this] { send_commands(); });
    std::size_t starts = 0;
    std::size_t ends = 0;
    for (const auto& [uuid, packets] : listener.finish()) {
        EXPECT_EQ(uuid, "3b9f6a527c1e4d809f2be4a1c05d8e37");
        for (const Bytes& packet : packets) {
            starts += field(packet, 4, 1) == "81" ? 1U : 0U;
            ends += field(packet, 4, 1) == "82" ? 1U : 0U;
        }
    }
    EXPECT_EQ(node.dropped(), 0U) << "the test's own socket was full";
    EXPECT_GT(starts, 0U);
    EXPECT_EQ(ends, starts);
}

TEST_F(Storm, NothingIsLeftBehindByReloadsUnderTwins) {
    // Without commands: the host would refuse to unload during each of them.
    run_storm([this] { send_events(); }, [this] { reload(); });
    EXPECT_GT(reloads, 0U);
}

}  // namespace

}  // namespace qv::tests
