// Each allocation of the module fails in turn: the call goes on, the module answers and logs,
// and nothing is left over.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/module_allocations.h"
#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

class MemoryFaultTest : public ModuleTest {
  protected:
    static constexpr std::size_t MANY = 500;

    // Runs one call first, so that the module and its library have allocated what they keep.
    void load_and_watch(const std::string& options = "") {
        load(options);
        hangup(*start_tapped_call());
        forget_packets();
        host.log().clear();
        void* module = ::dlopen(QUORVANE_RELOCATED_MODULE, RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(module, nullptr);
        watch_object(::dlsym(module, "mod_quorvane_module_interface"));
        ::dlclose(module);
    }

    // Runs `act` again and again, with allocation 0, 1, 2... failing, until it makes fewer
    // allocations. Runs `after` after each run. Returns the number of runs with a failure.
    template <typename Act, typename After>
    std::size_t fail_each(Act act, After after) {
        for (std::size_t index = 0; index < MANY; ++index) {
            SCOPED_TRACE("allocation " + std::to_string(index) + " fails");
            fail_allocation(index);
            act();
            const std::size_t made = stop_failing();
            after();
            EXPECT_EQ(allocations_kept(), 0U) << "of the module";
            if (made <= index) {
                return index;
            }
        }
        ADD_FAILURE() << "no end of allocations";
        return MANY;
    }

    static Variables all_variables() {
        return {{"quorvane_rule_id", "7"},
                {"quorvane_record", "yes"},
                {"quorvane_detection", "originator::inactive"},
                {"quorvane_audio_activity", "nonsense that is long enough to need memory"},
                {"quorvane_report_node", "127.0.0.1:5060"},
                {"quorvane_call_id_ref", "reference"},
                {"reference", "a call reference that is long enough to need memory"}};
    }

    void forget_packets() { node.receive_all(std::chrono::milliseconds(0)); }

    // Feeds different audio each time and checks that the call gets it unchanged, tapped or not.
    void feed(host::Call& call) {
        for (const host::Direction direction : {host::Direction::READ, host::Direction::WRITE}) {
            for (std::int16_t& sample : samples) {
                sample = next_sample = static_cast<std::int16_t>(next_sample * 31 + 7);
            }
            EXPECT_FALSE(call.feed(direction, samples.data(), 320).altered);
        }
    }

    // Checks that nothing is left of the call: the next one is tapped as usual.
    void expect_next_call_is_tapped() {
        forget_packets();
        auto call = start_tapped_call();
        hangup(*call);
        forget_packets();
        host.log().clear();
    }

    // Checks that each logged line is complete, or is the fixed line that replaces it.
    void expect_whole_lines(const std::vector<std::string>& whole) {
        for (const std::string& line : take_log()) {
            const std::string text =
                std::regex_replace(line.substr(line.find(' ', line.find(".cpp:")) + 1),
                                   std::regex("SOCKET\\[[0-9]+\\]|[0-9]+: [0-9]+\\)"), "#");
            EXPECT_TRUE(text == "RAW [quorvane]: a line was lost: out of memory\n" ||
                        std::find(whole.begin(), whole.end(), text) != whole.end())
                << line;
        }
    }

    std::array<std::int16_t, 160> samples{};
    std::int16_t next_sample = 1;
};

TEST_F(MemoryFaultTest, AnApplicationWithoutMemoryLeavesTheCallAlone) {
    load_and_watch();
    std::unique_ptr<host::Call> call;
    const std::size_t failures = fail_each(
        [&] {
            call = start_call(all_variables());
            EXPECT_TRUE(call->execute("quorvane"));
        },
        [&] {
            feed(*call);
            hangup(*call);
            expect_next_call_is_tapped();
        });
    EXPECT_GE(failures, 5U);
}

// The object stays mapped, so each load also finds the context of a call that is not tapped.
TEST_F(MemoryFaultTest, ALoadWithoutMemoryIsRefusedAndTheNextOneWorks) {
    load_and_watch();
    void* const mapped = ::dlopen(QUORVANE_RELOCATED_MODULE, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(mapped, nullptr);
    host::CallOptions options;
    options.uuid = "5a1d0c3e-0b7f-4c52-8e11-9d2f60a7b314";
    const auto untapped = start_call_as(options);
    host.api("quorvane " + options.uuid + " detection start");
    ASSERT_TRUE(unload().unloaded);
    std::size_t refused = 0;
    for (std::size_t index = 0;; ++index) {
        SCOPED_TRACE("allocation " + std::to_string(index) + " fails");
        fail_allocation(index);
        const host::LoadResult result = try_load();
        const std::size_t made = stop_failing();
        EXPECT_EQ(result.exception, std::nullopt);
        if (made <= index) {
            ASSERT_TRUE(result.loaded);
            break;
        }
        // If there is no memory for a setting, the load is refused.
        if (result.loaded) {
            ASSERT_TRUE(unload().unloaded);
        } else {
            EXPECT_TRUE(host.log().contains("no memory to load the module"));
            ++refused;
        }
        host.log().clear();
        ASSERT_LT(index, MANY);
    }
    expect_next_call_is_tapped();
    EXPECT_GE(refused, 5U);
    ::dlclose(mapped);
}

TEST_F(MemoryFaultTest, WhatMemoryDidNotSufficeForIsLogged) {
    load_and_watch();
    std::unique_ptr<host::Call> call;
    std::map<std::string, int> told;
    fail_each(
        [&] {
            call = start_call();
            call->execute("quorvane");
        },
        [&] {
            for (const char* text :
                 {"a line was lost: out of memory", "app context allocation failure"}) {
                told[text] += host.log().contains(text) ? 1 : 0;
            }
            hangup(*call);
            host.log().clear();
        });
    EXPECT_GE(told["a line was lost: out of memory"], 2);
    EXPECT_EQ(told["app context allocation failure"], 2) << "the context and its registry entry";
}

TEST_F(MemoryFaultTest, AFeatureCommandWithoutMemoryAnswersAndLetsGoOfTheCall) {
    load_and_watch();
    std::unique_ptr<host::Call> call;
    std::string answer;
    const std::size_t failures = fail_each(
        [&] {
            call = start_call();
            answer = call_api("audio_activity start orig stop term");
        },
        [&] {
            EXPECT_EQ(host.report().read_locks_held, 0U);
            EXPECT_FALSE(answer.empty() && !host.log().contains("allocation failure"));
            hangup(*call);
            expect_next_call_is_tapped();
        });
    EXPECT_GE(failures, 5U);
}

TEST_F(MemoryFaultTest, AFeatureSwitchOfATappedCallSurvivesWithoutMemory) {
    load_and_watch("default_audio_activity=true\n");
    std::unique_ptr<host::Call> call;
    const std::size_t failures = fail_each(
        [&] {
            call = start_call({{"quorvane_rule_id", "1"}});
            call->execute("quorvane");
            call_api("audio_activity stop both");
            call_api("features");
            call_api("nonsense");
        },
        [&] {
            feed(*call);
            hangup(*call);
            expect_next_call_is_tapped();
        });
    EXPECT_GE(failures, 10U);
}

TEST_F(MemoryFaultTest, AHangUpWithoutMemoryStillEndsTheContext) {
    load_and_watch();
    std::unique_ptr<host::Call> call;
    fail_each(
        [&] {
            call = start_call();
            call->execute("quorvane");
            hangup(*call);
        },
        [&] { expect_next_call_is_tapped(); });
}

TEST_F(MemoryFaultTest, AFrameNeedsNoMemory) {
    load_and_watch();
    const auto call = start_tapped_call();
    EXPECT_EQ(fail_each([&] { feed(*call); }, [] {}), 0U);
    EXPECT_EQ(node.receive_types(), "8383");
}

// An allocation and a send fail at the same time. No exception may leave the module: it would
// have to pass through the host's C functions.
TEST_F(MemoryFaultTest, ASendThatFailsIsReportedWithoutMemoryOrInOneFixedLine) {
    load_and_watch();
    std::unique_ptr<host::Call> call;
    const std::size_t failures = fail_each(
        [&] {
            call = start_call({{"sip_call_id", "x"},
                               {"quorvane_rule_id", "1"},
                               {"quorvane_audio_activity", "true"}});
            call->execute("quorvane");
            SystemCalls calls;
            for (int i = 0; i < 4; ++i) {
                calls.next("sendto", Outcome::fail(ENOBUFS));
            }
            feed(*call);
            call_api("audio_activity stop");
            call->hangup();
        },
        [&] {
            host.events().wait_drained();
            expect_whole_lines({
                "application execution started",
                std::string("app context added, id: ") + KEY,
                "media transfer started",
                "new media bug added",
                "audio_activitycontrol packet for feature update was sent",
                "transfered 0/0 bytes of media",
                std::string(UUID) + ": found app context on channel destroy however no app has "
                                    "been executed",
                "app context allocation failure (is there enough memory?)",
                "#: failed to send a data (#, error (105): No buffer space available",
                "media transfer failed to send read frame",
                "media transfer failed to send write frame",
                "media transfer termination failed",
            });
            expect_next_call_is_tapped();
        });
    EXPECT_GE(failures, 10U);
}

TEST_F(MemoryFaultTest, AStartThatCannotBeSentIsReportedWithoutMemoryOrInOneFixedLine) {
    load_and_watch();
    std::unique_ptr<host::Call> call;
    const std::size_t failures = fail_each(
        [&] {
            call = start_call({{"sip_call_id", "x"}});
            SystemCalls calls;
            calls.next("sendto", Outcome::fail(ENOBUFS));
            call->execute("quorvane");
        },
        [&] {
            feed(*call);
            hangup(*call);
            expect_whole_lines({
                "application execution started",
                std::string("app context added, id: ") + KEY,
                "app context allocation failure (is there enough memory?)",
                "failed to add new media bug; media ready: 1, CF_MEDIA: 1, state: 4, cause: 0",
                std::string(UUID) + ": found configured app context on channel destroy: possible "
                                    "memory leak or logic error!",
                "#: failed to send a data (#, error (105): No buffer space available",
                "media transfer start failed",
            });
            EXPECT_TRUE(node.receive_all(std::chrono::milliseconds(0)).empty());
            expect_next_call_is_tapped();
        });
    EXPECT_GE(failures, 5U);
}

TEST_F(MemoryFaultTest, AShortDumpWithoutMemoryDoesNotEndTheHost) {
    load_and_watch("dump_events=channel-short\n");
    fail_each(
        [&] {
            host::Event event;
            event.id = SWITCH_EVENT_CHANNEL_STATE;
            event.headers = {{"Unique-ID", UUID},
                             {"Event-Name", "CHANNEL_STATE"},
                             {"Channel-State", "CS_EXECUTE"}};
            host.events().fire(event);
            host.events().wait_drained();
        },
        [] {});
}

}  // namespace

}  // namespace qv::tests
