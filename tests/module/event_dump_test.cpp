// The dumps of host events into the host's log.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

class EventDump : public ModuleTest {
  protected:
    using Headers = std::vector<std::pair<std::string, std::string>>;

    // The lines that the module writes for an event.
    Lines dump(int id, const Headers& headers, const std::string& body = "") {
        host.log().clear();
        host.events().fire({id, headers, body});
        host.events().wait_drained();
        return take_log();
    }

    static std::string full(const std::string& handler, const std::string& event) {
        return "CRIT log mod_quorvane.cpp:" + handler + " RAW DUMP\n" + event + "\n";
    }
    static std::string brief(const std::string& text) {
        return "CRIT log mod_quorvane.cpp:dump_channel_event_short_handler RAW " + text;
    }

    const Headers usual{{"Event-Name", "SOME_EVENT"},
                        {"Unique-ID", "some id"},
                        {"Channel-State", "CS_EXECUTE"},
                        {"Channel-Call-State", "ACTIVE"}};
    const std::string serialized =
        "Event-Name: [SOME_EVENT]\nUnique-ID: [some id]\nChannel-State: [CS_EXECUTE]\n"
        "Channel-Call-State: [ACTIVE]\n\n";
    const std::string brief_line =
        brief("[quorvane]: some id SOME_EVENT: state=CS_EXECUTE, call-state=ACTIVE\n");
};

TEST_F(EventDump, ModeNoneWritesNothing) {
    load("dump_events=none\n");
    for (const int id : {0, 2, 22, 23}) {
        EXPECT_TRUE(dump(id, usual).empty()) << id;
    }
}

TEST_F(EventDump, ModeAllWritesEveryEventInFull) {
    load("dump_events\n");
    for (const int id : {0, 1, 2, 22, 23, 49}) {
        EXPECT_EQ(dump(id, usual), (Lines{full("dump_all_event_handler", serialized)})) << id;
    }
}

TEST_F(EventDump, ModeChannelWritesEvents2To22InFull) {
    load("dump_events=channel\n");
    for (const int id : {2, 12, 22}) {
        EXPECT_EQ(dump(id, usual), (Lines{full("dump_channel_event_handler", serialized)})) << id;
    }
    for (const int id : {0, 1, 23, 49}) {
        EXPECT_TRUE(dump(id, usual).empty()) << id;
    }
}

TEST_F(EventDump, ModeChannelShortWritesEvents2To22InOneLine) {
    load("dump_events=channel-short\n");
    for (const int id : {2, 12, 22}) {
        EXPECT_EQ(dump(id, usual), (Lines{brief_line})) << id;
    }
    for (const int id : {0, 1, 23, 49}) {
        EXPECT_TRUE(dump(id, usual).empty()) << id;
    }
}

TEST_F(EventDump, FullDumpTakesTheEventAsAnArgument) {
    load("dump_events=all\n");
    EXPECT_EQ(dump(0, {{"X", "%s %n"}}, "50 %d"),
              (Lines{full("dump_all_event_handler", "X: [%s %n]\nContent-Length: 5\n\n50 %d")}));
    host.events().fire({0, usual, ""});
    host.events().wait_drained();
    EXPECT_EQ(host.log().lines().front().format, "DUMP\n%s\n");
}

TEST_F(EventDump, FullDumpIsNotUrlEncoded) {
    load("dump_events=all\n");
    EXPECT_EQ(dump(0, {{"X", "a b\xC3\xA4"}}),
              (Lines{full("dump_all_event_handler", "X: [a b\xC3\xA4]\n\n")}));
}

TEST_F(EventDump, EventThatCannotBeSerializedIsLeftOut) {
    load("dump_events=all\n");
    host.faults().set(host::Fault::OUT_OF_MEMORY);
    EXPECT_TRUE(dump(0, usual).empty());
}

TEST_F(EventDump, ShortLineWithoutAChannelStateIsCompleteWithAnEmptyValue) {
    load("dump_events=channel-short\n");
    EXPECT_EQ(dump(2, {{"Event-Name", "E"}, {"Unique-ID", "u"}, {"Channel-Call-State", "c"}}),
              (Lines{brief("[quorvane]: u E: state=, call-state=c\n")}));
}

TEST_F(EventDump, ShortLineWithoutACallStateIsCompleteWithAnEmptyValue) {
    load("dump_events=channel-short\n");
    EXPECT_EQ(dump(2, {{"Event-Name", "E"}, {"Unique-ID", "u"}, {"Channel-State", "s"}}),
              (Lines{brief("[quorvane]: u E: state=s, call-state=\n")}));
}

TEST_F(EventDump, ShortLineWithoutAUniqueIdIsCompleteWithAnEmptyValue) {
    load("dump_events=channel-short\n");
    EXPECT_EQ(dump(2, {{"Event-Name", "E"}}),
              (Lines{brief("[quorvane]:  E: state=, call-state=\n")}));
}

TEST_F(EventDump, ShortLineWithoutAnEventNameStopsBehindTheBlank) {
    load("dump_events=channel-short\n");
    EXPECT_EQ(dump(2, {{"Unique-ID", "u"}, {"Channel-State", "s"}, {"Channel-Call-State", "c"}}),
              (Lines{brief("[quorvane]: u ")}));
    EXPECT_EQ(dump(2, {}), (Lines{brief("[quorvane]:  ")}));
}

// The short line is passed as the format, so the host interprets a "%" in a header.
TEST_F(EventDump, PercentSignInAHeaderIsReadByTheHostInTheShortLineAlone) {
    load("dump_events=channel-short\n");
    EXPECT_EQ(dump(2, {{"Event-Name", "E"}, {"Unique-ID", "100%%"}}),
              (Lines{brief("[quorvane]: 100% E: state=, call-state=\n")}));
    host.events().fire({2, {{"Event-Name", "E"}, {"Unique-ID", "100%%"}}, ""});
    host.events().wait_drained();
    EXPECT_EQ(host.log().lines().front().format, "[quorvane]: 100%% E: state=, call-state=\n");
}

TEST_F(EventDump, DumpsDoNotHeedTheModulesLevel) {
    load("log_level=ERROR\ndump_events=channel-short\n");
    EXPECT_EQ(dump(2, usual), (Lines{brief_line}));
}

TEST_F(EventDump, DumpsAreWrittenBesideTheCleanUpOfCalls) {
    load("dump_events=channel-short\n");
    const auto call = start_call();
    call_api("audio_activity start");
    host.events().wait_drained();
    EXPECT_EQ(dump(SWITCH_EVENT_CHANNEL_DESTROY, {{"Event-Name", "E"}, {"Unique-ID", UUID}}),
              (Lines{std::string("NOTICE log mod_quorvane.cpp:channel_destroy_handler ") + UUID +
                         ": found app context on channel destroy however no app has been executed",
                     brief(std::string("[quorvane]: ") + UUID + " E: state=, call-state=\n")}));
}

TEST_F(EventDump, EventsOfACallAreDumpedInTheirOrder) {
    load("dump_events=channel-short\n");
    host.log().clear();
    const auto call = start_call();
    hangup(*call);
    const Lines lines = take_log();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_NE(lines.front().find(" CHANNEL_CREATE: state="), std::string::npos) << lines.front();
    EXPECT_NE(lines.back().find(" CHANNEL_DESTROY: state="), std::string::npos) << lines.back();
}

}  // namespace

}  // namespace qv::tests
