// The media bug of a call: start, frames, close.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using host::Direction;
using host::Fault;

class MediaBug : public ModuleTest {
  protected:
    void SetUp() override { load(); }

    static std::string bug_line(const std::string& level, const std::string& text) {
        return session_line(level, "media_handler", text);
    }
    static host::FrameResult feed(host::Call& call, Direction direction, const Bytes& bytes) {
        return call.feed(direction, bytes.data(), bytes.size());
    }

    const std::string terminated = bug_line("INFO", "media transfer terminated");
};

// ---- a whole call -----------------------------------------------------------------

TEST_F(MediaBug, WholeCallGoesOutByteForByte) {
    host::CallOptions options;
    options.created = 1767225600123456;
    options.variables = {{"quorvane_rule_id", "42"},
                         {"quorvane_audio_activity", "true"},
                         {"quorvane_record", "yes"},
                         {"sip_call_id", "a84b4c76e66710@192.0.2.7"}};
    const auto call = start_call_as(options);
    call->execute("quorvane");
    const Bytes tone = from_text("00 00 64 00 c8 00 64 00 00 00 9c ff 38 ff 9c ff");
    feed(*call, Direction::READ, tone);
    feed(*call, Direction::WRITE, Bytes(16));
    feed(*call, Direction::READ, tone);
    feed(*call, Direction::WRITE, from_text("e8 03 18 fc e8 03 18 fc e8 03 18 fc e8 03 18 fc"));
    EXPECT_EQ(call_api("audio_activity stop"),
              "audio_activity: control packet for feature update was sent"
              "+OK, audio_activity: updated: old = 204, new = 192");
    hangup(*call);

    // Bytes 48 to 63 of the start packet, the times of configuration, differ in every run.
    Bytes start = node.receive();
    const Bytes golden_start = golden("call_1_start");
    ASSERT_GE(start.size(), 64U);
    std::copy(golden_start.begin() + 48, golden_start.begin() + 64, start.begin() + 48);
    EXPECT_EQ(timeless(start), timeless(golden_start));
    const std::vector<std::string> names = golden_call();
    for (std::size_t i = 1; i < names.size(); ++i) {
        EXPECT_EQ(timeless(node.receive()), timeless(golden(names[i]))) << names[i];
    }
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(MediaBug, CallWithoutFramesIsStartAndTerminate) {
    const auto call = start_call();
    call->execute("quorvane");
    hangup(*call);
    EXPECT_EQ(node.receive_types(), "8182");
}

TEST_F(MediaBug, EndOfACallTellsTheBytesOfBothLegs) {
    const auto call = start_tapped_call();
    feed(*call, Direction::READ, Bytes(320));
    feed(*call, Direction::READ, Bytes(320));
    feed(*call, Direction::WRITE, Bytes(160));
    hangup(*call);
    EXPECT_EQ(take_log(),
              (Lines{terminated, bug_line("INFO", "transfered 640/160 bytes of media")}));
}

TEST_F(MediaBug, OddFramesOfBothLegsAreAddedUpAndReported) {
    const auto call = start_tapped_call();
    feed(*call, Direction::READ, Bytes(321));
    feed(*call, Direction::WRITE, Bytes(1));
    feed(*call, Direction::WRITE, Bytes(3));
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{terminated, bug_line("ERROR", "detected (3) odd frames"),
                                 bug_line("INFO", "transfered 320/2 bytes of media")}));
}

TEST_F(MediaBug, OneFrameOf321BytesIsOneOddFrame) {
    const auto call = start_tapped_call();
    feed(*call, Direction::READ, Bytes(321));
    hangup(*call);
    EXPECT_TRUE(host.log().contains("detected (1) odd frames\n"));
}

TEST_F(MediaBug, CallWithoutOddFramesTellsOfNone) {
    const auto call = start_tapped_call();
    feed(*call, Direction::READ, Bytes(320));
    hangup(*call);
    EXPECT_FALSE(host.log().contains("odd frames"));
}

TEST_F(MediaBug, EndedCallIsNotRegisteredAnyMore) {
    const auto call = start_tapped_call();
    hangup(*call);
    take_log();
    // A second channel-destroy event finds no context.
    host.events().fire({SWITCH_EVENT_CHANNEL_DESTROY, {{"Unique-ID", UUID}}, ""});
    host.events().wait_drained();
    EXPECT_TRUE(take_log().empty());
}

// ---- frames -----------------------------------------------------------------------

TEST_F(MediaBug, FramesAreHandedBackAsTheyWere) {
    const auto call = start_tapped_call();
    for (const std::size_t size : {0U, 1U, 320U, 321U, 3000U}) {
        for (const Direction direction : {Direction::READ, Direction::WRITE}) {
            const host::FrameResult result = feed(*call, direction, Bytes(size, 0xA5));
            EXPECT_EQ(result.bugs, 1U);
            EXPECT_FALSE(result.altered) << size;
        }
    }
}

TEST_F(MediaBug, SplitFrameNamesTheCodecOfTheCall) {
    host::CallOptions options;
    options.codec = "PCMA";
    const auto call = start_call_as(options);
    call->execute("quorvane");
    host.log().clear();
    feed(*call, Direction::WRITE, Bytes(3000));
    EXPECT_EQ(take_log(),
              (Lines{session_line("WARNING", "media_data",
                                  "MEDIA_TRANSFER: \"PCMA\" write frame of 3000 byte(s) split for "
                                  "3 chunks",
                                  "media_transfer.cpp")}));
}

TEST_F(MediaBug, SplitFrameWithoutACodecNameEndsTheLineAtTheQuote) {
    host::CallOptions options;
    options.codec.reset();
    const auto call = start_call_as(options);
    call->execute("quorvane");
    host.log().clear();
    feed(*call, Direction::READ, Bytes(3000));
    EXPECT_EQ(
        take_log(),
        (Lines{session_line("WARNING", "media_data", "MEDIA_TRANSFER: \"", "media_transfer.cpp")}));
}

TEST_F(MediaBug, MissingFrameIsNoFailure) {
    const auto call = start_tapped_call();
    host.faults().set(Fault::NULL_FRAME);
    feed(*call, Direction::READ, Bytes(320));
    feed(*call, Direction::WRITE, Bytes(320));
    EXPECT_TRUE(take_log().empty());
    EXPECT_TRUE(node.receive_all().empty());
    EXPECT_EQ(call->bugs().size(), 1U);
}

TEST_F(MediaBug, FrameThatCannotBeSentIsReportedAndTheBugKept) {
    const auto call = start_tapped_call();
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    feed(*call, Direction::READ, Bytes(320));
    feed(*call, Direction::WRITE, Bytes(320));
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].rfind("ERROR log net_socket.cpp:- SOCKET[", 0), 0U) << lines[0];
    EXPECT_EQ(lines[1], bug_line("ERROR", "media transfer failed to send read frame"));
    EXPECT_EQ(lines[3], bug_line("ERROR", "media transfer failed to send write frame"));
    EXPECT_EQ(call->bugs().size(), 1U);
    feed(*call, Direction::READ, Bytes(320));
    EXPECT_EQ(field(node.receive(), 40, 8), hex("02 00 00 00 a0 00 00 00"));
}

TEST_F(MediaBug, FailureInTheSecondChunkLosesTheRestOfTheFrame) {
    const auto call = start_tapped_call();
    {
        SystemCalls calls;
        calls.next("sendto", Outcome::pass());
        calls.next("sendto", Outcome::fail(ENOBUFS));
        feed(*call, Direction::READ, Bytes(3000));
        EXPECT_EQ(calls.seen("sendto").size(), 2U);
    }
    EXPECT_EQ(node.receive_all().size(), 1U);
    hangup(*call);
    EXPECT_TRUE(host.log().contains("transfered 1322/0 bytes of media\n"));
    EXPECT_FALSE(host.log().contains("chunks"));
}

// ---- events -----------------------------------------------------------------------

TEST_F(MediaBug, OtherEventsDoNothingAndKeepTheBug) {
    const auto call = start_tapped_call();
    // 15 is the largest value that the enumeration can hold.
    for (const int type : {1, 2, 5, 6, 7, 9, 10, 13, 15}) {
        EXPECT_TRUE(call->raise(static_cast<switch_abc_type_t>(type))) << type;
    }
    EXPECT_TRUE(take_log().empty());
    EXPECT_TRUE(node.receive_all().empty());
    EXPECT_EQ(call->bugs().size(), 1U);
}

TEST_F(MediaBug, WithoutABugOrUserDataEveryEventIsRefusedAndDoesNothing) {
    const auto call = start_tapped_call();
    const host::BugInfo bug = call->bugs().front();
    // Any address will do: the module must not use it.
    auto* const some_bug = reinterpret_cast<switch_media_bug_t*>(&node);
    for (int type = 0; type <= 8; ++type) {
        const auto event = static_cast<switch_abc_type_t>(type);
        EXPECT_EQ(bug.callback(some_bug, nullptr, event), SWITCH_FALSE) << type;
        EXPECT_EQ(bug.callback(nullptr, bug.user_data, event), SWITCH_FALSE) << type;
    }
    EXPECT_TRUE(take_log().empty());
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(MediaBug, CloseThatCannotBeSentIsReportedAndEndsTheCallAllTheSame) {
    const auto call = start_tapped_call();
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    hangup(*call);
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], bug_line("ERROR", "media transfer termination failed"));
    EXPECT_EQ(lines[2], bug_line("INFO", "transfered 0/0 bytes of media"));
}

TEST_F(MediaBug, CloseOfACallThatIsNotRegisteredIsReportedAndFreesTheContext) {
    const auto call = start_tapped_call();
    host.events().fire({SWITCH_EVENT_CHANNEL_DESTROY, {{"Unique-ID", UUID}}, ""});
    host.events().wait_drained();
    host.log().clear();
    hangup(*call);
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2],
              session_line("ERROR", "media_handler",
                           "MAGIC: app context is not found on media transfer termination"));
    EXPECT_TRUE(unload().left_memory);
}

// ---- the features of the start packet ---------------------------------------------

TEST_F(MediaBug, RequestsOfTheApiAreMergedIntoTheStartPacket) {
    const auto call = start_call({{"quorvane_rule_id", "1"},
                                  {"quorvane_record", "yes"},
                                  {"quorvane_audio_activity", "true"}});
    call_api("audio_activity stop orig");
    call_api("detection start term");
    call->execute("quorvane");
    // Recording and the terminator's audio activity are unchanged, the originator's audio activity
    // has stopped, and the terminator's sample detection is added.
    EXPECT_EQ(field(node.receive(), 78, 2), hex("ec e8"));
    EXPECT_EQ(call_api("features"), "RRS-Aa\n");
}

TEST_F(MediaBug, FailedStartLeavesTheFeaturesOpenToRequests) {
    const auto call = start_call();
    SystemCalls calls;
    calls.next("sendto", Outcome::fail(ENETUNREACH));
    call_api("audio_activity start orig");
    call->execute("quorvane");
    // No start packet was sent, so the supported legs may still change and nothing is sent.
    EXPECT_EQ(call_api("audio_activity start term"),
              "+OK, audio_activity: updated: old = 4, new = 12");
    EXPECT_TRUE(node.receive_all().empty());
}

// ---- levels -----------------------------------------------------------------------

TEST_F(MediaBug, LevelTraceTellsOfEveryPacket) {
    unload();
    load("log_level=TRACE\n");
    const auto call = start_tapped_call();
    feed(*call, Direction::READ, Bytes(320));
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{session_line("DEBUG1", "media_data",
                                              "MEDIA_TRANSFER: send data packet of 320 byte(s) for "
                                              "leg/call_side (0/originator)",
                                              "media_transfer.cpp"),
                                 session_line("DEBUG", "media_terminate",
                                              "MEDIA_TRANSFER: send terminate packet for leg (0)",
                                              "media_transfer.cpp"),
                                 terminated, bug_line("INFO", "transfered 320/0 bytes of media")}));
}

TEST_F(MediaBug, LevelErrorTellsOfFailuresAlone) {
    unload();
    load("log_level=ERROR\n");
    const auto call = start_tapped_call();
    feed(*call, Direction::READ, Bytes(3001));
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{bug_line("ERROR", "detected (1) odd frames")}));
}

}  // namespace

}  // namespace qv::tests
