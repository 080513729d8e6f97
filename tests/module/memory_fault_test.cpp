// Memory runs out in the module, one allocation after the other: the call goes on, the
// module answers and logs, and nothing is left over.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/module_allocations.h"
#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

class MemoryFaultTest : public ModuleTest {
  protected:
    static constexpr std::size_t MANY = 500;

    void load_and_watch(const std::string& options = "") {
        load(options);
        void* module = ::dlopen(QUORVANE_MODULE_PATH, RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(module, nullptr);
        watch_object(::dlsym(module, "mod_quorvane_module_interface"));
        ::dlclose(module);
    }

    // Runs `act` with allocation 0, 1, 2... failing until it makes no further one, and
    // `after` behind each run. Returns the number of runs with a failure.
    template <typename Act, typename After>
    std::size_t fail_each(Act act, After after) {
        for (std::size_t index = 0; index < MANY; ++index) {
            SCOPED_TRACE("allocation " + std::to_string(index) + " fails");
            fail_allocation(index);
            act();
            const std::size_t made = stop_failing();
            after();
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

    // The call's audio passes unaltered whether it is tapped or not.
    static void expect_audio_untouched(host::Call& call) {
        const std::vector<std::int16_t> samples(160, 1234);
        EXPECT_FALSE(call.feed(host::Direction::read, samples.data(), 320).altered);
        EXPECT_FALSE(call.feed(host::Direction::write, samples.data(), 320).altered);
    }

    // Nothing is left of the call: the next one is tapped as usual.
    void expect_next_call_is_tapped() {
        forget_packets();
        auto call = start_tapped_call();
        hangup(*call);
        forget_packets();
        EXPECT_EQ(call_api("features"), "");
        host.log().clear();
    }
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
            expect_audio_untouched(*call);
            hangup(*call);
            expect_next_call_is_tapped();
        });
    EXPECT_GE(failures, 5U);
}

TEST_F(MemoryFaultTest, WhatMemoryDidNotSufficeForIsToldInTheLog) {
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
            expect_audio_untouched(*call);
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
