// The lifetime of a call's context, for every order in which the host and others act.
//
// A channel-destroy event erases the registry entry of the call's context. The event may name
// another call's UUID, or no call may have ended. The context must therefore outlive the event
// while its media bug is attached or its application runs. Run it under the address sanitizer,
// too.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/call_uuids.h"
#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using host::Direction;
using host::Fault;

class ContextLifetime : public ModuleTest {
  protected:
    void SetUp() override { load(); }

    using Headers = std::vector<std::pair<std::string, std::string>>;

    void fire_destroy(const Headers& headers) {
        host.events().fire({SWITCH_EVENT_CHANNEL_DESTROY, headers, ""});
        host.events().wait_drained();
    }

    // Starts and ends another call with this UUID.
    void live_and_die(const std::string& uuid) {
        host::CallOptions options;
        options.uuid = uuid;
        const auto other = host.start_call(std::move(options));
        hangup(*other);
    }

    static std::string bug_line(const std::string& level, const std::string& text) {
        return session_line(level, "media_handler", text);
    }

    static std::string found_configured(const std::string& uuid) {
        return "WARNING log mod_quorvane.cpp:channel_destroy_handler " + uuid +
               ": found configured app context on channel destroy: possible memory leak or "
               "logic error!";
    }

    // The call has lost only its registry entry, which the log reports.
    void expect_only_the_entry_lost(host::Call& call, const std::string& event_uuid) {
        EXPECT_EQ(take_log(), (Lines{found_configured(event_uuid)}));
        const Bytes frame(320);
        call.feed(Direction::READ, frame.data(), frame.size());
        const Bytes data = node.receive();
        EXPECT_EQ(field(data, 4, 1), "83");
        EXPECT_EQ(field(data, 8, 24), KEY_AND_UUID);
        hangup(call);
        EXPECT_EQ(take_log(), (Lines{bug_line("INFO", "media transfer terminated"),
                                     bug_line("INFO", "transfered 320/0 bytes of media"),
                                     bug_line("ERROR",
                                              "MAGIC: app context is not found on media "
                                              "transfer termination")}));
        const Bytes terminate = node.receive();
        EXPECT_EQ(field(terminate, 4, 1), "82");
        EXPECT_EQ(field(terminate, 8, 24), KEY_AND_UUID);
        EXPECT_TRUE(unload().left_memory) << "a context or its bug was left over";
    }

    const std::string KEY_AND_UUID =
        hex("a0 33 08 46 a7 6c ec 34 3b 9f 6a 52 7c 1e 4d 80 9f 2b e4 a1 c0 5d 8e 37");
};

// ---- another call ends that has the same key --------------------------------------

TEST_F(ContextLifetime, CallOutlivesOneWithTheSameUuidInOtherLetters) {
    const auto call = start_tapped_call();
    live_and_die("3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37");
    expect_only_the_entry_lost(*call, "3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37");
}

TEST_F(ContextLifetime, CallOutlivesOneWithTheSameUuidWithoutDashes) {
    const auto call = start_tapped_call();
    live_and_die("3b9f6a527c1e4d809f2be4a1c05d8e37");
    expect_only_the_entry_lost(*call, "3b9f6a527c1e4d809f2be4a1c05d8e37");
}

// This happens if the host uses the Call-ID of a SIP caller as the UUID.
TEST_F(ContextLifetime, CallOutlivesOneWithTheSameUuidAndAHostNameBehindIt) {
    const auto call = start_tapped_call();
    const std::string call_id = std::string(UUID) + "@192.0.2.7";
    live_and_die(call_id);
    expect_only_the_entry_lost(*call, call_id);
}

TEST_F(ContextLifetime, CallOutlivesOneWithAnotherUuidAndTheSameCrc) {
    const auto call = start_tapped_call();
    live_and_die("3b9f6a52-7c1e-4d81-dddb-054a69b7b8a4");
    expect_only_the_entry_lost(*call, "3b9f6a52-7c1e-4d81-dddb-054a69b7b8a4");
}

// ---- an event that no end of a call has caused ------------------------------------

// The dialplan's "event" adds the headers of the call that runs it.
TEST_F(ContextLifetime, CallOutlivesADestroyEventOfItsOwnDialplan) {
    const auto call = start_tapped_call();
    fire_destroy({{"Event-Name", "CHANNEL_DESTROY"},
                  {"Channel-State", "CS_EXECUTE"},
                  {"Unique-ID", UUID},
                  {"Answer-State", "answered"}});
    expect_only_the_entry_lost(*call, UUID);
}

TEST_F(ContextLifetime, CallOutlivesADestroyEventFromTheEventSocket) {
    const auto call = start_tapped_call();
    fire_destroy({{"Event-Name", "CHANNEL_DESTROY"}, {"Unique-ID", UUID}});
    expect_only_the_entry_lost(*call, UUID);
}

TEST_F(ContextLifetime, DestroyEventCanComeAgainAndAgain) {
    const auto call = start_tapped_call();
    for (int i = 0; i < 3; ++i) {
        fire_destroy({{"Unique-ID", UUID}});
    }
    expect_only_the_entry_lost(*call, UUID);
}

// ---- an event that comes late -----------------------------------------------------

// Blocks the thread that delivers events until it is destroyed.
class HeldEvents {
  public:
    explicit HeldEvents(host::EmbeddedHost& host) : host_(host) {
        switch_event_bind_removable("test", SWITCH_EVENT_CUSTOM, nullptr, wait, nullptr, &node_);
        held = std::promise<void>();
        host_.events().fire({SWITCH_EVENT_CUSTOM, {}, ""});
    }
    HeldEvents(const HeldEvents&) = delete;
    HeldEvents& operator=(const HeldEvents&) = delete;
    ~HeldEvents() {
        held.set_value();
        host_.events().wait_drained();
        switch_event_unbind(&node_);
    }

  private:
    static void wait(switch_event_t* /*event*/) { held.get_future().wait(); }

    static inline std::promise<void> held;
    host::EmbeddedHost& host_;
    switch_event_node_t* node_ = nullptr;
};

TEST_F(ContextLifetime, CallOutlivesTheLateDestroyEventOfOneThatHadItsUuid) {
    std::unique_ptr<host::Call> call;
    {
        const HeldEvents held(host);
        start_call()->hangup();
        call = start_tapped_call();
    }
    expect_only_the_entry_lost(*call, UUID);
}

// ---- while the application runs ---------------------------------------------------

TEST_F(ContextLifetime, StartOutlivesADestroyEvent) {
    const auto call = start_call();
    {
        SystemCalls calls;
        calls.before("sendto", [this] { fire_destroy({{"Unique-ID", UUID}}); });
        call->execute("quorvane");
    }
    EXPECT_TRUE(host.log().contains("new media bug added"));
    EXPECT_TRUE(host.log().contains("found configured app context on channel destroy"));
    const Bytes start = node.receive();
    EXPECT_EQ(field(start, 4, 1), "81");
    EXPECT_EQ(field(start, 8, 24), KEY_AND_UUID);
    host.log().clear();
    hangup(*call);
    EXPECT_EQ(node.receive_types(), "82");
    EXPECT_TRUE(unload().left_memory);
}

// The API adds a new context under the key of the one that lost its entry. Both are freed.
TEST_F(ContextLifetime, EntryAddedAnewEndsWithTheCall) {
    const auto call = start_tapped_call();
    fire_destroy({{"Unique-ID", UUID}});
    take_log();
    EXPECT_EQ(call_api("audio_activity start"),
              std::string("audio_activity: app context added, id: ") + KEY +
                  "+OK, audio_activity: updated: old = 0, new = 12");
    take_log();
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{bug_line("INFO", "media transfer terminated"),
                                 bug_line("INFO", "transfered 0/0 bytes of media")}));
    EXPECT_TRUE(unload().left_memory);
}

// The application of every call races with destroy events about all calls.
TEST_F(ContextLifetime, ApplicationsRaceWithDestroyEvents) {
    constexpr unsigned CALLS = 200;
    std::atomic<unsigned> current{0};
    std::atomic<bool> stop{false};
    std::thread others([&] {
        while (!stop) {
            fire_destroy({{"Unique-ID", uuid_of(current)}});
        }
    });
    for (unsigned i = 0; i < CALLS; ++i) {
        current = i;
        host::CallOptions options;
        options.uuid = uuid_of(i);
        options.variables = {{"sip_call_id", std::string(100, 'x')}};
        const auto call = start_call_as(std::move(options));
        call->execute("quorvane");
        const Bytes frame(320);
        call->feed(Direction::WRITE, frame.data(), frame.size());
        call->hangup();
    }
    stop = true;
    others.join();
    host.events().wait_drained();
    std::string types;
    for (const Bytes& packet : node.receive_all()) {
        types += field(packet, 4, 1);
    }
    std::string expected;
    for (unsigned i = 0; i < CALLS; ++i) {
        expected += "818382";
    }
    EXPECT_EQ(types, expected);
    EXPECT_TRUE(unload().left_memory);
}

// ---- bugs that the host does not keep ---------------------------------------------

TEST_F(ContextLifetime, RefusedBugHoldsNothing) {
    const auto call = start_call();
    host.faults().set(Fault::BUG_REFUSED);
    call->execute("quorvane");
    host.faults().clear();
    hangup(*call);
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(ContextLifetime, BugThatRefusesToStartHoldsNothing) {
    const auto call = start_call();
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    call->execute("quorvane");
    hangup(*call);
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(ContextLifetime, BugThatRefusesToStartAndIsClosedEndsAsUsual) {
    const auto call = start_call({{"sip_call_id", "x"}});
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    host.faults().set(Fault::REFUSED_BUG_CLOSED);
    call->execute("quorvane");
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[3], bug_line("ERROR", "media transfer start failed"));
    EXPECT_EQ(lines[4], bug_line("INFO", "media transfer terminated"));
    EXPECT_EQ(lines[5], bug_line("INFO", "transfered 0/0 bytes of media"));
    EXPECT_EQ(call_api("features").rfind("-ERR, features: session context not found", 0), 0U);
    take_log();
    hangup(*call);
    EXPECT_TRUE(take_log().empty());
    EXPECT_TRUE(unload().left_memory);
}

// Without a timetable the application runs once more on the context of a tapped call.
TEST_F(ContextLifetime, SecondBugThatIsRefusedAndClosedLeavesTheFirstItsContext) {
    host.faults().set(Fault::NO_TIMETABLE);
    const auto call = start_tapped_call();
    take_log();
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    host.faults().set(Fault::REFUSED_BUG_CLOSED);
    call->execute("quorvane");
    EXPECT_TRUE(host.log().contains("failed to add new media bug"));
    take_log();
    const Bytes frame(320);
    call->feed(Direction::READ, frame.data(), frame.size());
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{bug_line("INFO", "media transfer terminated"),
                                 bug_line("INFO", "transfered 320/0 bytes of media"),
                                 bug_line("ERROR",
                                          "MAGIC: app context is not found on media transfer "
                                          "termination")}));
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(ContextLifetime, BugThatIsLostBehindItsStartHoldsNothing) {
    const auto call = start_call();
    host.faults().set(Fault::BUG_LOST);
    call->execute("quorvane");
    take_log();
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{found_configured(UUID)}));
    EXPECT_TRUE(unload().left_memory);
}

// Without its timetable a call is not marked as configured, so the application can run on the
// same context again and attach a second bug.
TEST_F(ContextLifetime, TwoBugsOfOneContextEndOneAfterTheOther) {
    host.faults().set(Fault::NO_TIMETABLE);
    const auto call = start_call();
    call->execute("quorvane");
    call->execute("quorvane");
    EXPECT_EQ(call->bugs().size(), 2U);
    EXPECT_EQ(node.receive_types(), "8181");
    hangup(*call);
    EXPECT_EQ(node.receive_types(), "8282");
    EXPECT_TRUE(unload().left_memory);
}

// ---- unloading --------------------------------------------------------------------

TEST_F(ContextLifetime, CallWithoutItsEntryKeepsTheModuleInMemory) {
    const auto call = start_tapped_call();
    fire_destroy({{"Unique-ID", UUID}});
    EXPECT_FALSE(unload().left_memory);
    const Bytes frame(320);
    call->feed(Direction::READ, frame.data(), frame.size());
    load();
    hangup(*call);
    EXPECT_TRUE(unload().left_memory);
}

}  // namespace

}  // namespace qv::tests
