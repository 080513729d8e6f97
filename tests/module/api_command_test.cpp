// Every answer of the API command, byte for byte, and the effects of each command.
#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>
#include <string>

#include "host/answer_stream.h"
#include "tests/support/failing_new.h"
#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using host::Fault;

// The usage text keeps its misspelling; the command accepts the correct spelling only.
const std::string USAGE =
    "version|dump_events|media_node|default_audio_activity|default_detection || <uuid> "
    "audio_acttivity|detection|features";

class Api : public ModuleTest {
  protected:
    void SetUp() override { load(); }

    // Runs the command without the host's trimming of its text.
    std::string api_raw(const char* text) {
        host::AnswerStream stream;
        EXPECT_EQ(host.call_api("quorvane", text, nullptr, stream.get()), SWITCH_STATUS_SUCCESS);
        return stream.text();
    }

    static std::string api_line(const std::string& level, const std::string& text) {
        return level + " log api_command.cpp:- " + text;
    }

    // Every command that locks a session must have released its locks.
    void expect_locks_balanced(std::uint64_t taken) {
        EXPECT_EQ(host.report().read_locks_taken, taken);
        EXPECT_EQ(host.report().read_locks_held, 0U);
        EXPECT_EQ(host.report().unlocks_without_lock, 0U);
    }

    const std::string not_found_line =
        api_line("ERROR", std::string("session is not found: ") + UUID);
    const std::string added = std::string(": app context added, id: ") + KEY;
    const std::string added_line = api_line("NOTICE", std::string("app context added, id: ") + KEY);
    const std::string control_sent = ": control packet for feature update was sent";
};

// ---- words ------------------------------------------------------------------------

TEST_F(Api, NoWordsIsABadCommand) {
    const std::string answer = "-ERR, bad command!\n-USAGE: " + USAGE + "\n";
    EXPECT_EQ(api(""), answer);
    EXPECT_EQ(api_raw(""), answer);
    EXPECT_EQ(api_raw(nullptr), answer);
}

TEST_F(Api, BlanksAloneAreNoArguments) {
    EXPECT_EQ(api_raw("   "), "-ERR, arguments are not specified\n");
}

TEST_F(Api, UnknownWordIsNeitherUuidNorCommand) {
    EXPECT_EQ(api("foo"), "-ERR, neither uuid nor known command \"foo\"!\n-USAGE: " + USAGE + "\n");
    EXPECT_EQ(api("foo bar baz"),
              "-ERR, neither uuid nor known command \"foo\"!\n-USAGE: " + USAGE + "\n");
    EXPECT_EQ(api("%s%n"),
              "-ERR, neither uuid nor known command \"%s%n\"!\n-USAGE: " + USAGE + "\n");
}

TEST_F(Api, CommandWordsAreWholeAndInLowerCase) {
    for (const char* word : {"Version", "versions", "vers", "dump-events", "MEDIA_NODE"}) {
        EXPECT_EQ(api(word), std::string("-ERR, neither uuid nor known command \"") + word +
                                 "\"!\n-USAGE: " + USAGE + "\n");
    }
}

TEST_F(Api, TabIsNoBlank) {
    EXPECT_EQ(api("version\tx"),
              "-ERR, neither uuid nor known command \"version\tx\"!\n-USAGE: " + USAGE + "\n");
}

TEST_F(Api, UuidAloneWantsAnotherArgument) {
    EXPECT_EQ(api(UUID),
              "-ERR, there should be at least 2 arguments for uuid-based command (<uuid> <cmd>), "
              "specified 1 args\n");
}

TEST_F(Api, UnknownCommandOfACall) {
    for (const char* word : {"audio_acttivity", "Detection", "feature", "start"}) {
        EXPECT_EQ(call_api(word),
                  std::string("-ERR, unknown command \"") + word + "\"!\n-USAGE: " + USAGE + "\n");
    }
    expect_locks_balanced(0);
}

TEST_F(Api, EveryAnswerIsASuccessForTheHost) {
    for (const char* words : {"", "foo", "version", UUID}) {
        EXPECT_EQ(host.api(std::string("quorvane ") + words).status, SWITCH_STATUS_SUCCESS);
    }
}

TEST_F(Api, NullStreamIsRefusedByTheCommand) {
    try {
        host.call_api("quorvane", "version", nullptr, nullptr);
        FAIL() << "nothing was thrown";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "stream must be not null");
    }
}

// ---- global commands --------------------------------------------------------------

TEST_F(Api, VersionIsTheBuildAndALineEnd) {
    EXPECT_TRUE(
        std::regex_match(api("version"), std::regex("[0-9]{6}:[0-9]{6} [0-9a-f]{16}@[a-z]+\n")))
        << api("version");
}

TEST_F(Api, VersionIsTheOneThatTheLoadLogged) {
    unload();
    host.log().clear();
    try_load();
    const std::string told = host.log().lines().front().text;
    EXPECT_EQ(told, "[quorvane]: build version: \"" +
                        api("version").substr(0, api("version").size() - 1) + "\"\n");
}

TEST_F(Api, RunsOfBlanksCountAsOne) {
    EXPECT_EQ(api_raw("  version  "), api("version"));
    EXPECT_EQ(api("  media_node"), node.address() + "\n");
}

TEST_F(Api, FurtherWordsOfAGlobalCommandAreIgnored) {
    EXPECT_EQ(api("version extra words"), api("version"));
    EXPECT_EQ(api("dump_events all"), "none\n");
}

TEST_F(Api, GlobalCommandsTellTheSettings) {
    unload();
    load(
        "dump_events=channel-short\nmedia_node=node.example:4000\n"
        "default_audio_activity=orig::false %s\ndefault_detection=trueish\n");
    EXPECT_EQ(api("dump_events"), "channel-short\n");
    EXPECT_EQ(api("media_node"), "node.example:4000\n");
    EXPECT_EQ(api("default_audio_activity"), "orig::false %s\n");
    EXPECT_EQ(api("default_detection"), "trueish\n");
}

TEST_F(Api, EveryDumpModeHasItsName) {
    for (const std::string mode : {"none", "all", "channel", "channel-short"}) {
        unload();
        load("dump_events=" + mode + "\n");
        EXPECT_EQ(api("dump_events"), mode + "\n");
    }
}

TEST_F(Api, GlobalCommandsLogNothing) {
    for (const char* word : {"version", "dump_events", "media_node", "default_audio_activity",
                             "default_detection", "foo", ""}) {
        api(word);
    }
    EXPECT_TRUE(take_log().empty());
}

// ---- sessions that cannot be locked -----------------------------------------------

TEST_F(Api, CallThatDoesNotExistIsOnlyLogged) {
    for (const char* words : {"features", "audio_activity start", "detection stop both"}) {
        EXPECT_EQ(call_api(words), "") << words;
        EXPECT_EQ(take_log(), (Lines{not_found_line})) << words;
    }
    expect_locks_balanced(0);
}

TEST_F(Api, CallThatIsOverIsNotFound) {
    const auto call = start_tapped_call();
    hangup(*call);
    take_log();
    EXPECT_EQ(call_api("features"), "");
    EXPECT_EQ(take_log(), (Lines{not_found_line}));
}

TEST_F(Api, ArgumentsAreCheckedBeforeTheCallIsLookedFor) {
    EXPECT_EQ(call_api("audio_activity"),
              "-ERR, audio_activity: not enough args (2), should be at least (3)");
    EXPECT_EQ(call_api("detection halt"), "-ERR, detection: unknown arg \"halt\" at pos (2)");
    EXPECT_TRUE(take_log().empty());
}

// ---- arguments of a feature command -----------------------------------------------

TEST_F(Api, FeatureCommandWantsThreeWords) {
    EXPECT_EQ(call_api("audio_activity"),
              "-ERR, audio_activity: not enough args (2), should be at least (3)");
    EXPECT_EQ(call_api("detection"),
              "-ERR, detection: not enough args (2), should be at least (3)");
}

TEST_F(Api, ActionIsExactlyStartOrStop) {
    for (const std::string word : {"halt", "Start", "starts", "sto", "orig", "%s"}) {
        EXPECT_EQ(call_api("detection " + word),
                  "-ERR, detection: unknown arg \"" + word + "\" at pos (2)");
    }
}

TEST_F(Api, LegIsReportedWithItsPosition) {
    for (const std::string word : {"xy", "ori", "bot", "ter", "Orig", "left", "start"}) {
        EXPECT_EQ(call_api("detection start " + word),
                  "-ERR, detection: unknown arg \"" + word + "\" at pos (3)");
    }
    EXPECT_EQ(call_api("audio_activity start orig stop xyz"),
              "-ERR, audio_activity: unknown arg \"xyz\" at pos (5)");
    EXPECT_EQ(call_api("audio_activity start orig term"),
              "-ERR, audio_activity: unknown arg \"term\" at pos (4)");
}

TEST_F(Api, RefusedCommandChangesNothing) {
    const auto call = start_call();
    call_api("audio_activity start orig stop xyz");
    EXPECT_EQ(call_api("features").rfind("-ERR, features: session context not found", 0), 0U);
}

TEST_F(Api, LegsCountByTheirBeginning) {
    const auto call = start_call();
    EXPECT_EQ(call_api("detection start originate"),
              "detection" + added + "+OK, detection: updated: old = 0, new = 16");
    EXPECT_EQ(call_api("detection start termite"), "+OK, detection: updated: old = 16, new = 48");
    EXPECT_EQ(call_api("detection stop bothered"), "+OK, detection: updated: old = 48, new = 0");
    EXPECT_EQ(call_api("detection start originator stop terminator"),
              "+OK, detection: updated: old = 0, new = 16");
}

// ---- before the start packet ------------------------------------------------------

TEST_F(Api, StartWithoutALegIsBothLegsAndCreatesTheContext) {
    const auto call = start_call();
    EXPECT_EQ(call_api("audio_activity start"),
              "audio_activity" + added + "+OK, audio_activity: updated: old = 0, new = 12");
    EXPECT_EQ(take_log(), (Lines{added_line}));
    EXPECT_EQ(call_api("features"), "----AA\n");
    EXPECT_TRUE(node.receive_all().empty());
    expect_locks_balanced(2);
}

TEST_F(Api, OneLegReadsAsTheRunTogetherAnswerOfNew4) {
    const auto call = start_call();
    EXPECT_EQ(call_api("audio_activity start orig"),
              "audio_activity" + added + "+OK, audio_activity: updated: old = 0, new = 4");
}

// For a new context the command answers "updated", although no bit of it changed.
TEST_F(Api, StopOnACallWithoutAContextCreatesOne) {
    const auto call = start_call();
    EXPECT_EQ(call_api("detection stop"),
              "detection" + added + "+OK, detection: updated: old = 0, new = 0");
    EXPECT_EQ(call_api("features"), "--ss--\n");
}

TEST_F(Api, StartAndStopOfDifferentLegs) {
    const auto call = start_call();
    EXPECT_EQ(call_api("audio_activity start orig stop term"),
              "audio_activity" + added + "+OK, audio_activity: updated: old = 0, new = 4");
    EXPECT_EQ(call_api("features"), "----aA\n");
}

TEST_F(Api, StopDoesNotTakeBackAStartOfTheSameCommand) {
    const auto call = start_call();
    EXPECT_EQ(call_api("audio_activity start orig stop orig"),
              "audio_activity" + added + "+OK, audio_activity: updated: old = 0, new = 4");
    EXPECT_EQ(call_api("audio_activity start both stop"),
              "+OK, audio_activity: updated: old = 4, new = 12");
}

TEST_F(Api, SameCommandTwiceHasNothingToUpdate) {
    const auto call = start_call();
    call_api("audio_activity start");
    EXPECT_EQ(call_api("audio_activity start"),
              "+OK, audio_activity: nothing to update: old = 12, new = 12");
}

// The command compares only the active byte. It answers "nothing to update" for a leg that
// becomes supported without starting, although the leg is then supported.
TEST_F(Api, LegThatOnlyBecomesSupportedIsReportedAsNothingToUpdate) {
    const auto call = start_call();
    call_api("audio_activity start orig");
    EXPECT_EQ(call_api("audio_activity stop term"),
              "+OK, audio_activity: nothing to update: old = 4, new = 4");
    EXPECT_EQ(call_api("features"), "----aA\n");
}

TEST_F(Api, NumbersAreOfAllFeaturesTogether) {
    const auto call = start_call();
    call_api("detection start");
    EXPECT_EQ(call_api("audio_activity start term"),
              "+OK, audio_activity: updated: old = 48, new = 56");
}

TEST_F(Api, BeforeTheStartTheFeaturesAreThoseOfTheApiAlone) {
    const auto call = start_call({{"quorvane_record", "yes"}});
    call_api("detection start orig");
    EXPECT_EQ(call_api("features"), "---S--\n");
    call->execute("quorvane");
    EXPECT_EQ(call_api("features"), "RR-S--\n");
}

TEST_F(Api, NoMemoryForAContextIsOnlyLogged) {
    const auto call = start_call();
    {
        const NoMemory no_memory(100);
        EXPECT_EQ(call_api("audio_activity start"), "");
    }
    EXPECT_EQ(
        take_log(),
        (Lines{api_line("ERROR", "app context allocation failure (is there enough memory?)")}));
    expect_locks_balanced(1);
    EXPECT_EQ(call_api("audio_activity start"),
              "audio_activity" + added + "+OK, audio_activity: updated: old = 0, new = 12");
}

// ---- after the start packet -------------------------------------------------------

class ApiAfterStart : public Api {
  protected:
    // A call with audio activity on both legs, running.
    void SetUp() override {
        Api::SetUp();
        call = start_tapped_call({{"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "true"}});
    }
    void TearDown() override {
        call.reset();
        Api::TearDown();
    }

    std::unique_ptr<host::Call> call;
};

TEST_F(ApiAfterStart, StopOfBothLegsSendsAControlPacket) {
    EXPECT_EQ(call_api("audio_activity stop both"),
              "audio_activity" + control_sent + "+OK, audio_activity: updated: old = 12, new = 0");
    EXPECT_EQ(timeless(node.receive()),
              hex("ff 00 ff 00 84 01 80 00"                          // control, 0x0080
                  "a0 33 08 46 a7 6c ec 34"                          // call key
                  "3b 9f 6a 52 7c 1e 4d 80 9f 2b e4 a1 c0 5d 8e 37"  // call UUID
                  "00 00 00 00 00 00 00 00"                          // send time, left out
                  "0c 00"));                                         // supported, active
    expect_locks_balanced(1);
}

// The log line has no blank between the feature's name and the text.
TEST_F(ApiAfterStart, ControlPacketIsLogged) {
    call_api("audio_activity stop");
    EXPECT_EQ(take_log(), (Lines{api_line("NOTICE",
                                          "audio_activitycontrol packet for feature "
                                          "update was sent")}));
}

TEST_F(ApiAfterStart, FewerLegsThanSupportedAreRefused) {
    EXPECT_EQ(call_api("audio_activity stop orig"),
              "-ERR, audio_activity: not possible to change supported features (12 -> 4) when "
              "start packet had been sent");
    EXPECT_EQ(take_log(),
              (Lines{api_line("ERROR",
                              "audio_activity: not possible to change supported features "
                              "(12 -> 4) when start packet had been sent")}));
    EXPECT_EQ(call_api("features"), "----AA\n");
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(ApiAfterStart, FeatureThatWasNotSupportedIsRefused) {
    EXPECT_EQ(call_api("detection start"),
              "-ERR, detection: not possible to change supported features (12 -> 48) when start "
              "packet had been sent");
    EXPECT_EQ(take_log(),
              (Lines{api_line("ERROR",
                              "detection: not possible to change supported features (12 "
                              "-> 48) when start packet had been sent")}));
    expect_locks_balanced(1);
}

TEST_F(ApiAfterStart, SameStateHasNothingToUpdateAndSendsNothing) {
    EXPECT_EQ(call_api("audio_activity start"),
              "+OK, audio_activity: nothing to update: old = 12, new = 12");
    EXPECT_TRUE(node.receive_all().empty());
    EXPECT_TRUE(take_log().empty());
}

TEST_F(ApiAfterStart, OneLegOfTheSupportedOnesStopsWhileTheOtherStarts) {
    EXPECT_EQ(call_api("audio_activity start orig stop term"),
              "audio_activity" + control_sent + "+OK, audio_activity: updated: old = 12, new = 4");
    EXPECT_EQ(field(node.receive(), 40, 2), hex("0c 04"));
    EXPECT_EQ(call_api("features"), "----aA\n");
}

TEST_F(ApiAfterStart, ControlPacketThatCannotBeSentIsReportedAsSent) {
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    EXPECT_EQ(call_api("audio_activity stop"),
              "audio_activity" + control_sent + "+OK, audio_activity: updated: old = 12, new = 0");
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].rfind("ERROR log net_socket.cpp:- SOCKET[", 0), 0U) << lines[0];
}

TEST_F(ApiAfterStart, ControlPacketIsReportedAtDebugUnderTheCall) {
    call.reset();
    host.events().wait_drained();
    node.receive_all();
    unload();
    load("log_level=DEBUG\n");
    call = start_tapped_call({{"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "true"}});
    call_api("audio_activity stop");
    EXPECT_EQ(take_log().front(), session_line("DEBUG", "media_features_update",
                                               "MEDIA_TRANSFER: send control packet for leg (0)",
                                               "media_transfer.cpp"));
}

// ---- features ---------------------------------------------------------------------

TEST_F(Api, FeaturesOfACallWithoutAContext) {
    const auto call = start_call();
    EXPECT_EQ(call_api("features"), std::string("-ERR, features: session context not found, "
                                                "uuid/id: ") +
                                        UUID + "/" + KEY);
    EXPECT_EQ(call_api("features more words").rfind("-ERR, features: session", 0), 0U);
    expect_locks_balanced(2);
    // The query has not created a context.
    hangup(*call);
    EXPECT_TRUE(take_log().empty());
}

TEST_F(Api, UuidIsReportedAsItWasGivenAndMayLackItsDashes) {
    host::CallOptions options;
    options.uuid = "3B9F6A527C1E4D809F2BE4A1C05D8E37";
    const auto call = start_call_as(options);
    EXPECT_EQ(api("3B9F6A527C1E4D809F2BE4A1C05D8E37 features"),
              std::string("-ERR, features: session context not found, uuid/id: "
                          "3B9F6A527C1E4D809F2BE4A1C05D8E37/") +
                  KEY);
}

TEST_F(Api, IdAboveTheSignedRangeIsAnsweredUnsigned) {
    host::CallOptions options;
    options.uuid = "ffffffff-ffff-ffff-ffff-ffffffffffff";
    const auto call = start_call_as(options);
    EXPECT_EQ(api("ffffffff-ffff-ffff-ffff-ffffffffffff features"),
              "-ERR, features: session context not found, uuid/id: "
              "ffffffff-ffff-ffff-ffff-ffffffffffff/14237874711344370682");
}

TEST_F(Api, FeaturesOfARecordedCallWithActivityAndIdleDetection) {
    const auto call = start_tapped_call({{"quorvane_rule_id", "1"},
                                         {"quorvane_record", "yes"},
                                         {"quorvane_audio_activity", "true"},
                                         {"quorvane_detection", "orig::false"}});
    EXPECT_EQ(call_api("features"), "RR-sAA\n");
}

TEST_F(Api, FeaturesOfACallWithNothing) {
    const auto call = start_tapped_call();
    EXPECT_EQ(call_api("features"), "------\n");
}

TEST_F(Api, EveryPositionOfTheFeaturesHasItsLetter) {
    const auto call = start_call();
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"detection stop term", "--s---\n"},      {"detection start term", "--S---\n"},
        {"detection stop orig", "--Ss--\n"},      {"detection start orig", "--SS--\n"},
        {"audio_activity stop term", "--SSa-\n"}, {"audio_activity start term", "--SSA-\n"},
        {"audio_activity stop orig", "--SSAa\n"}, {"audio_activity start orig", "--SSAA\n"},
        {"detection stop", "--ssAA\n"},
    };
    for (const auto& [command, features] : rows) {
        call_api(command);
        EXPECT_EQ(call_api("features"), features) << command;
    }
}

TEST_F(Api, FeaturesAfterACallsEndAreNotThere) {
    const auto call = start_tapped_call();
    EXPECT_EQ(call_api("features"), "------\n");
    hangup(*call);
    EXPECT_EQ(call_api("features"), "");
}

// ---- locks ------------------------------------------------------------------------

TEST_F(Api, EveryCommandGivesTheSessionBack) {
    const auto call = start_tapped_call();
    std::uint64_t taken = 0;
    for (const char* words : {"features", "audio_activity start", "detection stop term"}) {
        call_api(words);
        expect_locks_balanced(++taken);
    }
}

TEST_F(Api, SessionThatIsGivenToTheCommandIsNotUsed) {
    const auto call = start_call();
    host::AnswerStream stream;
    host.call_api("quorvane", "media_node", call->session(), stream.get());
    EXPECT_EQ(stream.text(), node.address() + "\n");
    expect_locks_balanced(0);
}

}  // namespace

}  // namespace qv::tests
