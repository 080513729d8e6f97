// The application's paths, from the dialplan's call to the media bug.
//
// One path is left out: no function that the host can call creates a null registry entry.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/support/failing_new.h"
#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using host::Fault;

class Application : public ModuleTest {
  protected:
    void SetUp() override { load(); }

    static std::string app_line(const std::string& level, const std::string& text) {
        return session_line(level, "execute_quorvane_app", text);
    }

    const std::string started = app_line("INFO", "application execution started");
    const std::string added = app_line("NOTICE", std::string("app context added, id: ") + KEY);
    const std::string transfer_started =
        session_line("INFO", "media_handler", "media transfer started");
    const std::string bug_added = app_line("INFO", "new media bug added");
    // Every call of these tests has this variable; without it the module logs one more line.
    const Variables call_id{{"sip_call_id", "x"}};
};

TEST_F(Application, FirstRunRegistersTheCallAndAddsABug) {
    const auto call = start_call(call_id);
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{started, added, transfer_started, bug_added}));
    EXPECT_EQ(field(node.receive(), 4, 1), "81");
}

TEST_F(Application, BugIsAddedAsTheHostWantsIt) {
    const auto call = start_call(call_id);
    call->execute("quorvane");
    ASSERT_EQ(call->bugs().size(), 1U);
    const host::BugInfo bug = call->bugs().front();
    EXPECT_EQ(bug.function, "quorvane");
    EXPECT_EQ(bug.target, "");
    EXPECT_EQ(bug.stop_time, 0);
    EXPECT_EQ(bug.flags, 0x4000000CU);
    EXPECT_NE(bug.user_data, nullptr);
}

TEST_F(Application, ArgumentIsNotUsed) {
    const auto call = start_call(call_id);
    call->execute("quorvane", "media_node=192.0.2.1:1 %s");
    EXPECT_EQ(take_log(), (Lines{started, added, transfer_started, bug_added}));
}

TEST_F(Application, SecondRunIsIgnoredAndAddsNoBug) {
    const auto call = start_tapped_call(call_id);
    call->execute("quorvane");
    EXPECT_EQ(take_log(),
              (Lines{started, app_line("WARNING", "app context already configured; ignoring")}));
    EXPECT_EQ(call->bugs().size(), 1U);
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(Application, ContextOfAnApiCommandIsFoundAndConfigured) {
    const auto call = start_call(call_id);
    call_api("audio_activity start orig");
    take_log();
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{started, app_line("NOTICE", "app context found; configuring"),
                                 transfer_started, bug_added}));
    // The start packet has the features that the API requested, the key and the UUID.
    const Bytes start = node.receive();
    EXPECT_EQ(field(start, 8, 24), hex("a0 33 08 46 a7 6c ec 34 3b 9f 6a 52 7c 1e 4d 80"
                                       "9f 2b e4 a1 c0 5d 8e 37"));
    EXPECT_EQ(field(start, 78, 2), hex("04 04"));
}

TEST_F(Application, IdAboveTheSignedRangeIsLoggedUnsigned) {
    host::CallOptions options;
    options.uuid = "ffffffff-ffff-ffff-ffff-ffffffffffff";
    const auto call = start_call_as(options);
    call->execute("quorvane");
    EXPECT_TRUE(host.log().contains("app context added, id: 14237874711344370682\n"));
}

TEST_F(Application, UuidInUpperCaseIsTheSameCall) {
    host::CallOptions options;
    options.uuid = "3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37";
    const auto call = start_call_as(options);
    call->execute("quorvane");
    EXPECT_TRUE(host.log().contains(std::string("app context added, id: ") + KEY));
}

TEST_F(Application, CallsOfDifferentUuidsHaveDifferentContexts) {
    const auto first = start_call(call_id);
    host::CallOptions options;
    options.uuid = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e38";
    const auto second = start_call_as(options);
    first->execute("quorvane");
    second->execute("quorvane");
    EXPECT_EQ(host.log().count("app context added, id: "), 2U);
    EXPECT_NE(field(node.receive(), 8, 8), field(node.receive(), 8, 8));
}

TEST_F(Application, UuidThatDoesNotDecodeStopsTheRun) {
    const auto call = start_call(call_id);
    host.faults().set(Fault::UUID_GARBAGE);
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{started, app_line("ERROR",
                                                   "MAGIC: failed to parse session uuid: "
                                                   "not-a-uuid")}));
    EXPECT_TRUE(call->bugs().empty());
    // The registry is unchanged: it has no entry for the call.
    host.faults().clear();
    EXPECT_EQ(call_api("features").rfind("-ERR, features: session context not found", 0), 0U);
}

TEST_F(Application, MediaNodeThatDoesNotParseStopsTheRunWithTheContextConfigured) {
    const auto call = start_call({{"quorvane_media_node", "nowhere"}});
    call->execute("quorvane");
    EXPECT_EQ(take_log(),
              (Lines{started, added,
                     session_line("ERROR", "configure_context",
                                  "failed to parse channel variable \"quorvane_media_node\": "
                                  "nowhere; discarding!"),
                     app_line("ERROR", "failed to configure application context")}));
    EXPECT_TRUE(call->bugs().empty());
    EXPECT_TRUE(node.receive_all().empty());
    call->execute("quorvane");
    EXPECT_EQ(take_log(),
              (Lines{started, app_line("WARNING", "app context already configured; ignoring")}));
}

TEST_F(Application, MediaThatIsNotReadyIsWarnedOfAndTheBugTriedAllTheSame) {
    host::CallOptions options;
    options.variables = call_id;
    options.media = host::MediaState::ON_DEMAND;
    const auto call = start_call_as(options);
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{started, added, app_line("WARNING", "session media is not ready!"),
                                 transfer_started, bug_added}));
    EXPECT_EQ(call->bugs().size(), 1U);
}

TEST_F(Application, MediaThatCannotComeUpEndsInARefusedBug) {
    host::CallOptions options;
    options.variables = call_id;
    options.media = host::MediaState::REFUSED;
    const auto call = start_call_as(options);
    call->execute("quorvane");
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[2], app_line("WARNING", "session media is not ready!"));
    EXPECT_EQ(lines[3].rfind(app_line("ERROR",
                                      "failed to add new media bug; media ready: 0, "
                                      "CF_MEDIA: 0, state: "),
                             0),
              0U)
        << lines[3];
}

TEST_F(Application, RefusedBugTellsItsFourValuesInOrder) {
    const auto call = start_call(call_id);
    host.faults().set(Fault::BUG_REFUSED);
    call->set_state(CS_PARK);
    call->set_cause(SWITCH_CAUSE_USER_BUSY);
    call->set_flag(CF_MEDIA_SET, 5);
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{started, added, app_line("WARNING", "session media is not ready!"),
                                 app_line("ERROR",
                                          "failed to add new media bug; media ready: 0, CF_MEDIA: "
                                          "5, state: 6, cause: 17")}));
}

TEST_F(Application, RefusedBugOnAReadyCallSaysSo) {
    const auto call = start_call(call_id);
    host.faults().set(Fault::BUG_REFUSED);
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{started, added,
                                 app_line("ERROR",
                                          "failed to add new media bug; media ready: 1, CF_MEDIA: "
                                          "1, state: 4, cause: 0")}));
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(Application, RefusedBugLeavesTheContextConfigured) {
    const auto call = start_call(call_id);
    host.faults().set(Fault::BUG_REFUSED);
    call->execute("quorvane");
    host.faults().clear();
    take_log();
    call->execute("quorvane");
    EXPECT_EQ(take_log(),
              (Lines{started, app_line("WARNING", "app context already configured; ignoring")}));
}

TEST_F(Application, StartPacketThatCannotBeSentEndsInARefusedBug) {
    const auto call = start_call(call_id);
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    call->execute("quorvane");
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[2].rfind("ERROR log net_socket.cpp:- SOCKET[", 0), 0U) << lines[2];
    EXPECT_EQ(lines[3], session_line("ERROR", "media_handler", "media transfer start failed"));
    EXPECT_EQ(lines[4], app_line("ERROR",
                                 "failed to add new media bug; media ready: 1, CF_MEDIA: "
                                 "1, state: 4, cause: 0"));
    EXPECT_TRUE(call->bugs().empty());
    EXPECT_EQ(host.report().bugs_refused, 1U);
}

TEST_F(Application, CallReferenceThatIsTooLongEndsInARefusedBug) {
    const auto call = start_call({{"sip_call_id", std::string(1294, 'x')}});
    call->execute("quorvane");
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[2], session_line("ERROR", "media_start",
                                     "MEDIA_TRANSFER: not enough free space (1294) in a buffer to "
                                     "write app context payload (1295)",
                                     "media_transfer.cpp"));
    EXPECT_EQ(lines[3], session_line("ERROR", "media_handler", "media transfer start failed"));
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(Application, NoMemoryForTheContextStopsTheRun) {
    const auto call = start_call(call_id);
    {
        const NoMemory no_memory(100);
        call->execute("quorvane");
    }
    EXPECT_EQ(take_log(), (Lines{started, app_line("ERROR",
                                                   "app context allocation failure (is there "
                                                   "enough memory?)")}));
    EXPECT_TRUE(call->bugs().empty());
    // The registry lock has been released, and the call can be tapped later.
    call->execute("quorvane");
    EXPECT_EQ(take_log(), (Lines{started, added, transfer_started, bug_added}));
}

// The application ignores the failure to mark the context, and goes on.
TEST_F(Application, ChannelWithoutATimetableIsTappedAllTheSame) {
    const auto call = start_call(call_id);
    host.faults().set(Fault::NO_TIMETABLE);
    call->execute("quorvane");
    EXPECT_EQ(take_log(),
              (Lines{started, added,
                     session_line("ERROR", "mark_configured",
                                  "MAGIC: failed to get channel timetable", "app_context.cpp"),
                     transfer_started, bug_added}));
    EXPECT_EQ(field(node.receive(), 40, 8), hex("00 00 00 00 00 00 00 00"));
}

}  // namespace

}  // namespace qv::tests
