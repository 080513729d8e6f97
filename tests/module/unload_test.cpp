// Unloading, with and without calls, and loading again.
//
// The host unloads a module even while its media bugs are attached. The shared object must stay
// mapped while calls are tapped, and must be unmapped otherwise.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/module_test.h"

// The shared object is unmapped at the end of a thread, and the next load may map it at the same
// address. A lock of the dynamic linker orders the two, but the thread sanitizer does not see it
// and reports the new object's first accesses as races with the old object's destruction.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the name is given.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:__call_tls_dtors\nrace:call_init\n";
}

namespace qv::tests {

namespace {

using namespace std::chrono_literals;
using host::Direction;
using host::Fault;

class Unload : public ModuleTest {
  protected:
    void feed(host::Call& call) {
        const Bytes frame(320);
        call.feed(Direction::READ, frame.data(), frame.size());
    }

    // A second call beside the usual one.
    static host::CallOptions other_call() {
        host::CallOptions options;
        options.uuid = "c2d8e1f4-7a06-45b3-a190-9c3d5e7f2b68";
        return options;
    }

    static bool is_mapped() {
        void* const object = ::dlopen(QUORVANE_RELOCATED_MODULE, RTLD_LAZY | RTLD_NOLOAD);
        if (object != nullptr) {
            ::dlclose(object);
        }
        return object != nullptr;
    }

    // Ends the call on a thread of its own, as a session has one. The thread has ended when this
    // function returns.
    void hangup_on_own_thread(host::Call& call) {
        std::thread([&] { hangup(call); }).join();
    }

    static std::string bug_line(const std::string& level, const std::string& text) {
        return session_line(level, "media_handler", text);
    }
};

TEST_F(Unload, ModuleWithoutCallsLeavesMemory) {
    load();
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(Unload, ModuleWhoseCallsHaveEndedLeavesMemory) {
    load();
    for (int i = 0; i < 3; ++i) {
        const auto call = start_tapped_call();
        feed(*call);
        hangup(*call);
        node.receive_all();
    }
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(Unload, LiveCallThatIsNotTappedDoesNotKeepTheModule) {
    load();
    const auto call = start_call();
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(Unload, ModuleIsGoneForTheHost) {
    load();
    const auto call = start_call();
    unload();
    EXPECT_TRUE(host.applications().empty());
    EXPECT_TRUE(host.apis().empty());
    EXPECT_FALSE(call->execute("quorvane"));
    EXPECT_EQ(host.report().bindings_alive, 0U);
    hangup(*call);
    EXPECT_EQ(host.log().lines().size(), 1U);  // The line of the shutdown.
}

TEST_F(Unload, LoadUnloadManyTimesLeavesNothing) {
    for (int i = 0; i < 20; ++i) {
        load("dump_events=all\n");
        const host::UnloadResult result = unload();
        ASSERT_TRUE(result.left_memory) << i;
        ASSERT_EQ(result.bindings_dropped, 0U) << i;
    }
}

TEST_F(Unload, NextLoadBeginsWithTheDefaults) {
    load("log_level=ERROR\ndump_events=all\ndefault_detection=true\ndefault_audio_activity=orig\n");
    unload();
    configure("");
    ASSERT_TRUE(try_load().loaded);
    EXPECT_EQ(api("media_node"), "127.0.0.1:0\n");
    EXPECT_EQ(api("dump_events"), "none\n");
    EXPECT_EQ(api("default_detection"), "\n");
    EXPECT_EQ(api("default_audio_activity"), "\n");
}

// ---- calls that are tapped --------------------------------------------------------

TEST_F(Unload, TappedCallKeepsTheModuleInMemory) {
    load();
    const auto call = start_tapped_call();
    const host::UnloadResult result = unload();
    EXPECT_TRUE(result.unloaded) << result.error;
    EXPECT_FALSE(result.left_memory);
    EXPECT_EQ(result.bugs_dropped, 0U);
    EXPECT_EQ(call->bugs().size(), 1U);
}

TEST_F(Unload, TappedCallGoesOnAndEndsWithoutItsMediaNode) {
    load();
    const auto call = start_tapped_call();
    unload();
    take_log();
    feed(*call);
    hangup(*call);
    EXPECT_TRUE(node.receive_all().empty());
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(
        lines[0].rfind("ERROR log net_socket.cpp:- SOCKET[-1]: failed to send a data (370: ", 0),
        0U)
        << lines[0];
    EXPECT_EQ(lines[1], bug_line("ERROR", "media transfer failed to send read frame"));
    EXPECT_EQ(lines[3], bug_line("ERROR", "media transfer termination failed"));
    EXPECT_EQ(lines[4], bug_line("INFO", "transfered 0/0 bytes of media"));
    EXPECT_EQ(host.report().bugs_closed, 1U);
}

TEST_F(Unload, LaterLoadStreamsTheCallOn) {
    load();
    const auto call = start_tapped_call({{"sip_call_id", "x"}});
    feed(*call);
    EXPECT_EQ(field(node.receive(), 40, 8), hex("01 00 00 00 00 00 00 00"));
    unload();
    feed(*call);  // Lost, but numbered.
    load();
    feed(*call);
    EXPECT_EQ(field(node.receive(), 40, 8), hex("03 00 00 00 40 01 00 00"));
    EXPECT_EQ(call_api("features"), "------\n");
    call->execute("quorvane");
    EXPECT_TRUE(host.log().contains("app context already configured; ignoring"));
    take_log();
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{bug_line("INFO", "media transfer terminated"),
                                 bug_line("INFO", "transfered 640/0 bytes of media")}));
    EXPECT_EQ(node.receive_types(), "82");
}

TEST_F(Unload, LaterLoadBeginsWithTheDefaultsThoughTheObjectStayed) {
    load(
        "log_level=DEBUG\ndump_events=all\ndefault_detection=true\n"
        "default_audio_activity=orig\n");
    const auto call = start_tapped_call();
    unload();
    configure("");
    ASSERT_TRUE(try_load().loaded);
    EXPECT_EQ(api("media_node"), "127.0.0.1:0\n");
    EXPECT_EQ(api("dump_events"), "none\n");
    EXPECT_EQ(api("default_detection"), "\n");
    EXPECT_EQ(api("default_audio_activity"), "\n");
    EXPECT_EQ(host.report().bindings_alive, 1U);
    host.log().clear();
    hangup(*call);
    // The level is INFO again, so there is no DEBUG line about the terminate packet.
    EXPECT_EQ(take_log(), (Lines{bug_line("INFO", "media transfer terminated"),
                                 bug_line("INFO", "transfered 0/0 bytes of media")}));
}

// Each load reads its file at the default level, whatever level an earlier file had set.
TEST_F(Unload, LaterLoadReadsItsFileAtTheDefaultLevelThoughTheObjectStayed) {
    load("log_level=ERROR\n");
    const auto call = start_tapped_call();
    unload();
    configure("foo=1\n");
    ASSERT_TRUE(try_load().loaded);
    EXPECT_TRUE(host.log().contains("CONFIGURATION: option [foo] is unknown"));
}

TEST_F(Unload, UnloadAfterTheTappedCallsHaveEndedLeavesMemory) {
    load();
    const auto call = start_tapped_call();
    EXPECT_FALSE(unload().left_memory);
    load();
    hangup(*call);
    EXPECT_TRUE(unload().left_memory);
}

// Features that the API requested for a call that is not tapped yet are lost with the module.
TEST_F(Unload, ContextOfAnApiCommandDoesNotKeepTheModule) {
    load();
    const auto call = start_call();
    call_api("audio_activity start");
    EXPECT_TRUE(unload().left_memory);
    load();
    EXPECT_EQ(call_api("features").rfind("-ERR, features: session context not found", 0), 0U);
    call->execute("quorvane");
    EXPECT_EQ(field(node.receive(), 78, 2), hex("00 00"));
    hangup(*call);
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(Unload, ContextWhoseBugWasRefusedDoesNotKeepTheModule) {
    load();
    const auto call = start_call();
    host.faults().set(Fault::BUG_REFUSED);
    call->execute("quorvane");
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(Unload, FailedLoadBesideTappedCallsLeavesThemAlone) {
    load();
    const auto call = start_tapped_call();
    unload();
    configure("log_level=nonsense\n");
    EXPECT_FALSE(try_load().loaded);
    EXPECT_EQ(call->bugs().size(), 1U);
    load();
    feed(*call);
    EXPECT_EQ(field(node.receive(), 40, 4), hex("01 00 00 00"));
}

// ---- calls that end while the module is unloaded ------------------------------------

TEST_F(Unload, LastTappedCallTakesTheObjectAlong) {
    load();
    const auto call = start_tapped_call();
    const auto other = start_call_as(other_call());
    ASSERT_TRUE(other->execute("quorvane"));
    EXPECT_FALSE(unload().left_memory);
    hangup_on_own_thread(*other);
    EXPECT_TRUE(is_mapped());
    feed(*call);
    hangup_on_own_thread(*call);
    EXPECT_FALSE(is_mapped());

    load();
    const auto next = start_tapped_call();
    hangup(*next);
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(Unload, ObjectStaysUntilTheThreadThatClosedTheLastBugHasEnded) {
    load();
    const auto call = start_tapped_call();
    unload();
    std::thread([&] {
        hangup(*call);
        EXPECT_TRUE(is_mapped());
    }).join();
    EXPECT_FALSE(is_mapped());
}

TEST_F(Unload, ThreadThatClosesTheLastBugTwiceGivesBothReferencesBack) {
    load();
    const auto first = start_tapped_call();
    unload();
    std::thread([&] {
        hangup(*first);
        load();
        const auto second = start_call_as(other_call());
        EXPECT_TRUE(second->execute("quorvane"));
        EXPECT_FALSE(unload().left_memory);
        hangup(*second);
        EXPECT_TRUE(is_mapped());
    }).join();
    EXPECT_FALSE(is_mapped());
}

// The unloaded module's last call has ended, but its thread has not.
TEST_F(Unload, ObjectThatIsAboutToGoIsLoadedAgain) {
    load();
    const auto call = start_tapped_call();
    EXPECT_FALSE(unload().left_memory);
    std::thread([&] {
        hangup(*call);
        load();
        node.receive_all(0ms);
    }).join();
    const auto next = start_tapped_call();
    feed(*next);
    EXPECT_EQ(field(node.receive(), 4, 1), "83");
    hangup(*next);
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(Unload, ObjectThatIsAboutToGoStaysForTheNextTappedCall) {
    load();
    const auto first = start_tapped_call();
    unload();
    std::unique_ptr<host::Call> second;
    std::thread([&] {
        hangup(*first);
        load();
        node.receive_all(0ms);
        second = start_tapped_call();
        EXPECT_FALSE(unload().left_memory);
    }).join();
    feed(*second);
    EXPECT_TRUE(is_mapped());
    hangup_on_own_thread(*second);
    EXPECT_FALSE(is_mapped());
}

TEST_F(Unload, FailedLoadDoesNotKeepTheObjectOfCallsThatHaveEnded) {
    load();
    const auto call = start_tapped_call();
    unload();
    configure("log_level=nonsense\n");
    EXPECT_FALSE(try_load().loaded);
    hangup_on_own_thread(*call);
    EXPECT_FALSE(is_mapped());
}

// The hook calls into the shared object as long as it is bound.
TEST_F(Unload, HookThatAFailedLoadLeftKeepsTheObject) {
    load("dump_events=all\n");
    const auto call = start_tapped_call();
    unload();
    host.faults().set(Fault::BIND_ALL_FAILS);
    EXPECT_FALSE(try_load().loaded);
    host.faults().clear();
    hangup_on_own_thread(*call);
    EXPECT_TRUE(is_mapped());
    host.events().fire({SWITCH_EVENT_CHANNEL_DESTROY, {{"Unique-ID", UUID}}, ""});
    host.events().wait_drained();
    load();
    EXPECT_TRUE(unload().left_memory);
}

// The unloaded module receives no event about the end of a call without a bug. Another call may
// then get the same UUID.
TEST_F(Unload, CallThatEndedMeanwhileLeavesNoContextBehind) {
    load();
    const auto tapped = start_call_as(other_call());
    tapped->execute("quorvane");
    {
        const auto call = start_call({{"quorvane_media_node", "bad"}});
        call->execute("quorvane");
        EXPECT_FALSE(unload().left_memory);
    }
    load();
    node.receive_all();
    host.log().clear();
    const auto call = start_call({{"sip_call_id", "x"}});
    call->execute("quorvane");
    EXPECT_TRUE(host.log().contains("app context added, id: "));
    EXPECT_EQ(field(node.receive(), 4, 1), "81");
}

// The host may use the Call-ID of a SIP caller as the UUID, up to 256 characters of it.
TEST_F(Unload, CallWithALongUuidThatEndedMeanwhileLeavesNoContextBehind) {
    load();
    const auto tapped = start_call_as(other_call());
    tapped->execute("quorvane");
    host::CallOptions options;
    options.uuid = UUID + std::string("@") + std::string(219, 'a');
    ASSERT_EQ(options.uuid.size(), 256U);
    {
        const auto call = start_call_as(options);
        api(options.uuid + " audio_activity start");
        EXPECT_FALSE(unload().left_memory);
    }
    load();
    const auto call = start_call_as(options);
    EXPECT_EQ(api(options.uuid + " features").rfind("-ERR, features: session context", 0), 0U);
}

TEST_F(Unload, CallThatIsAliveKeepsWhatTheApiAskedFor) {
    load();
    const auto tapped = start_call_as(other_call());
    tapped->execute("quorvane");
    node.receive();
    const auto call = start_call();
    call_api("audio_activity start");
    EXPECT_FALSE(unload().left_memory);
    load();
    EXPECT_EQ(call_api("features"), "----AA\n");
    call->execute("quorvane");
    EXPECT_EQ(field(node.receive(), 78, 2), hex("0c 0c"));
}

}  // namespace

}  // namespace qv::tests
