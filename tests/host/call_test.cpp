#include "host/call.h"

#include <chrono>
#include <thread>

#include "tests/host/host_fixture.h"

namespace qv::host {
namespace {

using std::chrono::milliseconds;

class CallTest : public HostTest {
  protected:
    const char* variable(Call& call, const char* name) {
        return switch_channel_get_variable_dup(call.channel(), name, SWITCH_FALSE, -1);
    }
    bool media_ready(Call& call) {
        return switch_channel_test_ready(call.channel(), SWITCH_TRUE, SWITCH_TRUE) != 0;
    }
    switch_core_session_t* locate(const std::string& uuid) {
        return switch_core_session_perform_locate(uuid.c_str(), __FILE__, __func__, __LINE__);
    }
};

TEST_F(CallTest, AGivenUuidIsTheSessions) {
    CallOptions options;
    options.uuid = "0c83b07c-2eb4-4b59-8d3c-4cbbbd40e2a4";
    const auto call = host_.start_call(options);
    EXPECT_STREQ(switch_core_session_get_uuid(call->session()),
                 "0c83b07c-2eb4-4b59-8d3c-4cbbbd40e2a4");
    EXPECT_STREQ(variable(*call, "uuid"), "0c83b07c-2eb4-4b59-8d3c-4cbbbd40e2a4");
}

TEST_F(CallTest, RandomUuidsDifferAndHaveTheUsualForm) {
    const auto first = host_.start_call();
    const auto second = host_.start_call();
    EXPECT_NE(first->uuid(), second->uuid());
    EXPECT_EQ(first->uuid().size(), 36u);
    EXPECT_EQ(first->uuid()[14], '4');
}

TEST_F(CallTest, TwoLivingCallsCannotShareAUuid) {
    const auto call = host_.start_call();
    CallOptions same;
    same.uuid = call->uuid();
    EXPECT_THROW(host_.start_call(same), std::invalid_argument);
    call->hangup();
    EXPECT_NE(host_.start_call(same), nullptr);
}

TEST_F(CallTest, VariablesAreFoundWhateverTheirCase) {
    const auto call = call_with({{"Sip_Call_Id", "a1"}});
    EXPECT_STREQ(variable(*call, "sip_call_id"), "a1");
    EXPECT_EQ(variable(*call, "nothing"), nullptr);
    EXPECT_EQ(variable(*call, ""), nullptr);
}

TEST_F(CallTest, TheOldTextOfAVariableStaysValid) {
    const auto call = call_with({{"name", "old"}});
    const char* old_text = variable(*call, "name");
    call->set_variable("name", "new");
    EXPECT_STREQ(old_text, "old");
    EXPECT_STREQ(variable(*call, "name"), "new");
}

TEST_F(CallTest, GlobalVariablesStandInForMissingOnes) {
    host_.set_global_variable("node", "everywhere");
    const auto call = call_with({});
    EXPECT_STREQ(variable(*call, "node"), "everywhere");
    call->set_variable("node", "here");
    EXPECT_STREQ(variable(*call, "node"), "here");
}

TEST_F(CallTest, DirectionIsTheChannels) {
    CallOptions options;
    options.direction = SWITCH_CALL_DIRECTION_OUTBOUND;
    const auto outbound = host_.start_call(options);
    EXPECT_EQ(switch_channel_direction(outbound->channel()), SWITCH_CALL_DIRECTION_OUTBOUND);
    EXPECT_STREQ(variable(*outbound, "direction"), "outbound");
    const auto inbound = host_.start_call();
    EXPECT_EQ(switch_channel_direction(inbound->channel()), SWITCH_CALL_DIRECTION_INBOUND);
}

TEST_F(CallTest, TheTimetableHoldsTheCreationTime) {
    CallOptions options;
    options.created = 1700000000000001;
    const auto call = host_.start_call(options);
    EXPECT_EQ(switch_channel_get_timetable(call->channel())->created, 1700000000000001);
    options.timetable = false;
    EXPECT_EQ(switch_channel_get_timetable(host_.start_call(options)->channel()), nullptr);
}

TEST_F(CallTest, TheTimetableCanBeTakenAway) {
    const auto call = host_.start_call();
    host_.faults().set(Fault::NO_TIMETABLE);
    EXPECT_EQ(switch_channel_get_timetable(call->channel()), nullptr);
    host_.faults().clear();
    EXPECT_NE(switch_channel_get_timetable(call->channel()), nullptr);
}

TEST_F(CallTest, AnAnsweredCallIsReadyForMedia) {
    const auto call = host_.start_call();
    EXPECT_TRUE(media_ready(*call));
    EXPECT_EQ(switch_channel_test_flag(call->channel(), CF_MEDIA_SET), 1u);
    host_.faults().set(Fault::MEDIA_NOT_READY);
    EXPECT_FALSE(media_ready(*call));
}

TEST_F(CallTest, ReadinessNeedsAStateCauseAndFlagsThatAllowIt) {
    const auto call = host_.start_call();
    call->set_state(CS_ROUTING);
    EXPECT_FALSE(media_ready(*call));
    EXPECT_TRUE(switch_channel_test_ready(call->channel(), SWITCH_FALSE, SWITCH_TRUE));
    call->set_state(CS_EXECUTE);
    call->set_cause(SWITCH_CAUSE_USER_BUSY);
    EXPECT_FALSE(media_ready(*call));
    call->set_cause(SWITCH_CAUSE_NONE);
    call->set_flag(CF_MEDIA_SET, 0);
    EXPECT_FALSE(media_ready(*call));
    EXPECT_TRUE(switch_channel_test_ready(call->channel(), SWITCH_TRUE, SWITCH_FALSE));
}

TEST_F(CallTest, ApplicationsRunOnTheCallersThread) {
    load_probe();
    const auto call = host_.start_call();
    EXPECT_TRUE(call->execute("probe", "some data"));
    EXPECT_EQ(said().back(), "ran with [some data], bug status 0");
    EXPECT_TRUE(call->execute("PROBE"));
    EXPECT_FALSE(call->execute("unknown"));
    EXPECT_EQ(host_.report().applications_inside, 0u);
}

TEST_F(CallTest, ACallThatIsOverRunsNothing) {
    load_probe();
    const auto call = host_.start_call();
    EXPECT_TRUE(call->hangup());
    EXPECT_FALSE(call->hangup());
    EXPECT_FALSE(call->alive());
    EXPECT_FALSE(call->execute("probe"));
    EXPECT_EQ(feed(*call, Direction::READ, {1}).bugs, 0u);
    EXPECT_EQ(call->session(), nullptr);
    EXPECT_EQ(host_.report().sessions_alive, 0u);
}

TEST_F(CallTest, LocateCountsItsReadLock) {
    const auto call = host_.start_call();
    EXPECT_EQ(locate(call->uuid()), call->session());
    EXPECT_EQ(host_.report().read_locks_held, 1u);
    switch_core_session_rwunlock(call->session());
    EXPECT_EQ(host_.report().read_locks_held, 0u);
    EXPECT_EQ(host_.report().read_locks_taken, 1u);
}

TEST_F(CallTest, AnUnlockTooManyIsCounted) {
    const auto call = host_.start_call();
    switch_core_session_rwunlock(call->session());
    EXPECT_EQ(host_.report().unlocks_without_lock, 1u);
}

TEST_F(CallTest, LocateRefusesWhatIsGoneOrHungUp) {
    const auto call = host_.start_call();
    EXPECT_EQ(locate("unknown"), nullptr);
    EXPECT_EQ(switch_core_session_perform_locate(nullptr, "", "", 0), nullptr);
    call->set_state(CS_HANGUP);
    EXPECT_EQ(locate(call->uuid()), nullptr);
    call->set_state(CS_EXECUTE);
    host_.faults().set(Fault::SESSION_NOT_FOUND);
    EXPECT_EQ(locate(call->uuid()), nullptr);
    EXPECT_EQ(host_.report().read_locks_held, 0u);
}

TEST_F(CallTest, HangupWaitsForReadLocks) {
    const auto call = host_.start_call();
    switch_core_session_t* session = locate(call->uuid());
    std::thread hangup([&call] { call->hangup(); });
    while (call->alive()) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(host_.report().sessions_alive, 1u);
    EXPECT_EQ(locate(call->uuid()), nullptr);
    switch_core_session_rwunlock(session);
    hangup.join();
    EXPECT_EQ(host_.report().sessions_alive, 0u);
    EXPECT_EQ(host_.report().sessions_destroyed_locked, 0u);
}

TEST_F(CallTest, AGarbageUuidCanBeHandedOut) {
    const auto call = host_.start_call();
    host_.faults().set(Fault::UUID_GARBAGE);
    EXPECT_STREQ(switch_core_session_get_uuid(call->session()), "not-a-uuid");
}

TEST(CallWithoutPatience, AReadLockThatIsNeverGivenBackIsReported) {
    HostOptions options;
    options.lock_patience = milliseconds(20);
    EmbeddedHost host(options);
    const auto call = host.start_call();
    auto* session = switch_core_session_perform_locate(call->uuid().c_str(), "", "", 0);
    call->hangup();
    EXPECT_EQ(host.report().sessions_destroyed_locked, 1u);
    EXPECT_EQ(host.report().sessions_alive, 0u);
    switch_core_session_rwunlock(session);
    EXPECT_EQ(host.report().read_locks_held, 0u);
}

TEST_F(CallTest, ANumberIsMadeOfDigitsDotsAndALeadingSign) {
    for (const char* text : {"", "-", "+", ".", "1.2.3", "-7", "007"}) {
        EXPECT_TRUE(switch_is_number(text)) << text;
    }
    for (const char* text : {"1 2", "12a", "abc", "1e3", "0x1", " 1", "--1"}) {
        EXPECT_FALSE(switch_is_number(text)) << text;
    }
}

TEST_F(CallTest, TenThousandCallsMayBeAlive) {
    std::vector<std::unique_ptr<Call>> calls;
    for (int i = 0; i < 10000; ++i) {
        calls.push_back(host_.start_call());
    }
    EXPECT_EQ(host_.report().sessions_alive, 10000u);
    calls.clear();
    EXPECT_EQ(host_.report().sessions_alive, 0u);
}

}  // namespace
}  // namespace qv::host
