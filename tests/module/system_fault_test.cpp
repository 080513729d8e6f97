// System calls fail while a call is tapped. The tests check what is logged, that the call's audio
// is not affected, and that the module tries to send the next packet as usual.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "quorvane_lib/sanitizer.h"
#include "tests/support/call_transfer.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/media_listener.h"
#include "tests/support/module_test.h"
#include "tests/support/own_network.h"
#include "tests/support/socket_errors.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using host::Direction;

class SystemFault : public ModuleTest {
  protected:
    // Feeds 160 samples, different ones each time, and checks that the call gets them unchanged.
    void feed(host::Call& call, Direction direction) {
        std::vector<std::int16_t> samples(160);
        for (std::int16_t& sample : samples) {
            sample = next_sample = static_cast<std::int16_t>(next_sample * 31 + 7);
        }
        std::vector<std::int16_t> handed_out = samples;
        switch_frame_t frame{};
        frame.data = handed_out.data();
        frame.datalen = frame.buflen = 320;
        EXPECT_FALSE(call.feed(direction, frame).altered);
        EXPECT_EQ(frame.data, handed_out.data());
        EXPECT_EQ(frame.datalen, 320U);
        EXPECT_EQ(handed_out, samples);
    }

    // Makes the first send fail while `act` runs. Checks that the module sends once and logs one
    // line about it. Returns the other lines.
    template <typename Act>
    Lines fail_to_send(const SystemError& error, std::size_t size, Act act) {
        SystemCalls calls;
        calls.next("sendto", Outcome::fail(error.number));
        host.log().clear();
        act();
        EXPECT_EQ(calls.seen("sendto").size(), 1U) << "it was tried again, or not at all";
        const long descriptor = calls.seen("sendto").at(0).numbers.at(0);
        Lines lines = take_log();
        const auto told = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find("SOCKET[") != std::string::npos;
        });
        if (told == lines.end()) {
            ADD_FAILURE() << "the error was not told";
            return lines;
        }
        // The address of the data differs in every run.
        EXPECT_EQ(std::regex_replace(*told, std::regex(": [0-9]+\\)"), ": ADDRESS)"),
                  "ERROR log net_socket.cpp:- SOCKET[" + std::to_string(descriptor) +
                      "]: failed to send a data (" + std::to_string(size) + ": ADDRESS), " +
                      error.text);
        lines.erase(told);
        return lines;
    }

    static std::string bug_line(const std::string& level, const std::string& text) {
        return session_line(level, "media_handler", text);
    }

    static std::string app_line(const std::string& level, const std::string& text) {
        return session_line(level, "execute_quorvane_app", text);
    }

    std::int16_t next_sample = 1;
};

// ---- sending ------------------------------------------------------------------------

TEST_F(SystemFault, EveryErrorOfSendingCostsOneFrameAndTwoLines) {
    load();
    const auto call = start_tapped_call();
    for (const Direction direction : {Direction::READ, Direction::WRITE}) {
        const std::string name = direction == Direction::READ ? "read" : "write";
        std::uint32_t sequence_number = 0;
        for (const SystemError& error : SENDTO_ERRORS) {
            SCOPED_TRACE(name + ", " + error.text);
            const Lines lines = fail_to_send(error, 370, [&] { feed(*call, direction); });
            EXPECT_EQ(
                lines,
                (Lines{bug_line("ERROR", "media transfer failed to send " + name + " frame")}));

            feed(*call, direction);
            sequence_number += 2;  // The lost packet has a number, too.
            const Bytes packet = node.receive();
            ASSERT_EQ(packet.size(), 370U);
            EXPECT_EQ(packet[40], sequence_number);
            EXPECT_TRUE(take_log().empty());
        }
    }
    EXPECT_EQ(call->bugs().size(), 1U);
}

TEST_F(SystemFault, EveryErrorOfSendingTheStartLeavesTheCallUntapped) {
    load();
    for (const SystemError& error : SENDTO_ERRORS) {
        SCOPED_TRACE(error.text);
        const auto call = start_call({{"sip_call_id", "x"}});
        const Lines lines = fail_to_send(error, 84, [&] { call->execute("quorvane"); });
        EXPECT_EQ(lines, (Lines{app_line("INFO", "application execution started"),
                                app_line("NOTICE", std::string("app context added, id: ") + KEY),
                                bug_line("ERROR", "media transfer start failed"),
                                app_line("ERROR",
                                         "failed to add new media bug; media ready: 1, CF_MEDIA: "
                                         "1, state: 4, cause: 0")}));
        EXPECT_TRUE(call->bugs().empty());

        feed(*call, Direction::READ);
        feed(*call, Direction::WRITE);
        hangup(*call);
        EXPECT_TRUE(node.receive_all(std::chrono::milliseconds(0)).empty());
        EXPECT_EQ(host.log().count("found configured app context on channel destroy"), 1U);
        host.log().clear();
    }
    start_tapped_call();
}

// The command ignores whether its packet was sent: the features are switched in any case.
TEST_F(SystemFault, EveryErrorOfSendingAControlPacketLeavesTheSwitchCarriedOut) {
    load();
    const auto call = start_tapped_call(
        {{"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "true"}, {"sip_call_id", "x"}});
    for (const SystemError& error : SENDTO_ERRORS) {
        SCOPED_TRACE(error.text);
        std::string answer;
        const Lines lines =
            fail_to_send(error, 42, [&] { answer = call_api("audio_activity stop"); });
        EXPECT_EQ(answer,
                  "audio_activity: control packet for feature update was sent+OK, "
                  "audio_activity: updated: old = 12, new = 0");
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_NE(lines[0].find("audio_activitycontrol packet for feature update was sent"),
                  std::string::npos)
            << lines[0];
        EXPECT_EQ(call_api("features"), "----aa\n");

        call_api("audio_activity start");
        EXPECT_EQ(field(node.receive(), 40, 2), "0c0c");
        feed(*call, Direction::READ);
        EXPECT_EQ(field(node.receive(), 4, 1), "83");
        host.log().clear();
    }
}

TEST_F(SystemFault, EveryErrorOfSendingTheTerminateStillEndsTheTap) {
    load();
    for (const SystemError& error : SENDTO_ERRORS) {
        SCOPED_TRACE(error.text);
        const auto call = start_tapped_call();
        feed(*call, Direction::READ);
        EXPECT_EQ(node.receive_types(), "83");
        const Lines lines = fail_to_send(error, 40, [&] { hangup(*call); });
        // No line of the channel-destroy handler: the context was freed before.
        EXPECT_EQ(lines, (Lines{bug_line("ERROR", "media transfer termination failed"),
                                bug_line("INFO", "transfered 320/0 bytes of media")}));
        EXPECT_TRUE(node.receive_all(std::chrono::milliseconds(0)).empty());
    }
}

TEST_F(SystemFault, APartialCountIsCompletedWithoutASecondFrame) {
    load();
    const auto call = start_tapped_call();
    SystemCalls calls;
    calls.next("sendto", Outcome::limit(100));
    calls.next("sendto", Outcome::limit(1));
    calls.next("sendto", Outcome::answer(0));
    feed(*call, Direction::READ);
    const auto sends = calls.seen("sendto");
    ASSERT_EQ(sends.size(), 4U);
    EXPECT_EQ(sends[0].result, 100);
    EXPECT_EQ(sends[1].result, 1);
    EXPECT_EQ(sends[2].bytes, sends[3].bytes);
    EXPECT_EQ(sends[3].result, 269);
    EXPECT_EQ(sends[1].bytes, sends[0].bytes.substr(100));
    EXPECT_EQ(sends[3].bytes, sends[0].bytes.substr(101));
    EXPECT_TRUE(take_log().empty());

    node.receive_all();
    feed(*call, Direction::READ);
    const Bytes packet = node.receive();
    ASSERT_EQ(packet.size(), 370U);
    EXPECT_EQ(packet[40], 2U);
}

TEST_F(SystemFault, AnErrorBehindAPartialCountLosesTheRestOfThePacket) {
    load();
    const auto call = start_tapped_call();
    {
        SystemCalls calls;
        calls.next("sendto", Outcome::limit(100));
        calls.next("sendto", Outcome::fail(EINTR));
        feed(*call, Direction::READ);
        EXPECT_EQ(calls.seen("sendto").size(), 2U);
    }
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_NE(lines[0].find("]: failed to send a data (370: "), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1], bug_line("ERROR", "media transfer failed to send read frame"));
    EXPECT_EQ(node.receive().size(), 100U);
    feed(*call, Direction::READ);
    EXPECT_EQ(node.receive().size(), 370U);
}

TEST_F(SystemFault, AMediaNodeThatIsAwayCostsTheCallNothing) {
    load();
    // The address of a node that no longer exists.
    const std::string address = MediaNode().address();
    const auto call = start_call({{"quorvane_media_node", address}});
    ASSERT_TRUE(call->execute("quorvane"));
    for (int i = 0; i < 100; ++i) {
        feed(*call, Direction::READ);
        feed(*call, Direction::WRITE);
    }
    EXPECT_EQ(call->bugs().size(), 1U);
    hangup(*call);
    EXPECT_EQ(host.report().frames_altered, 0U);
    EXPECT_TRUE(host.log().contains("bytes of media"));
}

// ---- a network that refuses datagrams --------------------------------------------------

// The node is at 127.0.0.1, in the test's own network.
class NetworkFault : public OwnNetwork, public SystemFault {
  protected:
    void SetUp() override {
        if (!why_not().empty()) {
            GTEST_SKIP() << why_not();
        }
        load();
    }

    // The lines that the module logs while `act` runs, without the numbers that differ in every
    // run. `act` must not wait.
    template <typename Act>
    Lines lines_of(Act act) {
        host.log().clear();
        const auto begin = std::chrono::steady_clock::now();
        act();
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
        EXPECT_LT(taken.count(), 1.0) << "it waited until the kernel gave up";
        Lines lines = take_log();
        for (std::string& line : lines) {
            line = std::regex_replace(line, std::regex("SOCKET\\[[0-9]+\\]"), "SOCKET[N]");
            line = std::regex_replace(line, std::regex("([0-9]+): [0-9]+\\)"), "$1: ADDRESS)");
        }
        return lines;
    }

    static std::string failed_to_send(int size, const std::string& error) {
        return "ERROR log net_socket.cpp:- SOCKET[N]: failed to send a data (" +
               std::to_string(size) + ": ADDRESS), " + error;
    }

    // The system refuses every packet from now on. Checks that the audio of a tapped call is not
    // affected, that each failure is logged for it, and that another call is not tapped.
    void expect_refusals(host::Call& call, const std::string& error) {
        for (const Direction direction : {Direction::READ, Direction::WRITE}) {
            const std::string name = direction == Direction::READ ? "read" : "write";
            EXPECT_EQ(
                lines_of([&] { feed(call, direction); }),
                (Lines{failed_to_send(370, error),
                       bug_line("ERROR", "media transfer failed to send " + name + " frame")}));
        }
        std::string answer;
        const Lines lines = lines_of([&] { answer = call_api("audio_activity stop"); });
        EXPECT_EQ(answer,
                  "audio_activity: control packet for feature update was sent+OK, "
                  "audio_activity: updated: old = 12, new = 0");
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0], failed_to_send(42, error));
        EXPECT_EQ(call_api("features"), "----aa\n");
        call_api("audio_activity start");

        const auto other = start_other_call(node.address());
        lines_of([&] { other->execute("quorvane"); });
        EXPECT_TRUE(other->bugs().empty());
        feed(*other, Direction::READ);
        other->hangup();
        host.events().wait_drained();
    }

    std::unique_ptr<host::Call> start_other_call(const std::string& media_node) {
        host::CallOptions options;
        char uuid[37];
        std::snprintf(uuid, sizeof(uuid), "c2d8e1f4-7a06-45b3-a190-9c3d5e7f%04x", ++other_calls);
        options.uuid = uuid;
        options.variables = {{"quorvane_media_node", media_node}};
        return start_call_as(std::move(options));
    }

    const Variables variables = {{"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "true"}};
    unsigned other_calls = 0;
};

class FullSendBuffer : public NetworkFault {
  protected:
    static constexpr const char* FULL = "error (11): Resource temporarily unavailable";

    // Taps calls whose media nodes do not answer until the send buffer holds no more.
    void fill_the_buffer() {
        for (int host_number = 2; host_number <= 254; ++host_number) {
            waiting.push_back(start_other_call("10.9.0." + std::to_string(host_number) + ":4000"));
            waiting.back()->execute("quorvane");
            for (int i = 0; i < 400; ++i) {
                const Lines lines = lines_of([&] { feed(*waiting.back(), Direction::READ); });
                if (!lines.empty() || HasFailure()) {
                    return;
                }
            }
        }
        FAIL() << "there was room for all";
    }

    // Makes the media nodes answer, so that the datagrams that waited for them are sent.
    void empty_the_buffer() {
        for (std::size_t i = 0; i < waiting.size(); ++i) {
            answer_from(static_cast<int>(i) + 2);
        }
    }

    std::vector<std::unique_ptr<host::Call>> waiting;
};

TEST_F(FullSendBuffer, CostsPacketsButNoTime) {
    const auto call = start_tapped_call(variables);
    feed(*call, Direction::READ);
    EXPECT_EQ(node.receive_types(), "83");
    fill_the_buffer();
    expect_refusals(*call, FULL);
    EXPECT_TRUE(node.receive_all(std::chrono::milliseconds(0)).empty());

    empty_the_buffer();
    EXPECT_EQ(lines_of([&] { feed(*call, Direction::READ); }), Lines{});
    Bytes packet = node.receive();
    ASSERT_EQ(packet.size(), 370U);
    EXPECT_EQ(packet[40], 3U);  // The lost packet has a number, too.
    EXPECT_EQ(field(packet, 44, 4), "40010000");
    feed(*call, Direction::WRITE);
    packet = node.receive();
    ASSERT_EQ(packet.size(), 370U);
    EXPECT_EQ(packet[40], 2U);
    hangup(*call);
    EXPECT_EQ(node.receive_types(), "82");
}

// The start packet waits for room in the buffer; a frame does not.
TEST_F(FullSendBuffer, DoesNotKeepACallFromBeingTappedWhenThereIsRoomInTime) {
    fill_the_buffer();
    const auto call = start_call(variables);
    std::thread answers([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        empty_the_buffer();
    });
    call->execute("quorvane");
    answers.join();
    EXPECT_EQ(call->bugs().size(), 1U);
    EXPECT_EQ(node.receive_types(), "81");
}

TEST_F(FullSendBuffer, HoldsTheStartOfACallUpForAQuarterOfASecond) {
    fill_the_buffer();
    const auto call = start_call(variables);
    host.log().clear();
    const auto begin = std::chrono::steady_clock::now();
    call->execute("quorvane");
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(250));
    EXPECT_LT(took, std::chrono::milliseconds(1500));
    EXPECT_TRUE(host.log().contains(FULL));
    EXPECT_TRUE(host.log().contains("media transfer start failed"));
    EXPECT_TRUE(call->bugs().empty());
    RecordProperty(
        "start_ms",
        static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()));
}

TEST_F(FullSendBuffer, StillEndsTheTap) {
    const auto call = start_tapped_call();
    fill_the_buffer();
    EXPECT_EQ(
        lines_of([&] { hangup(*call); }),
        (Lines{failed_to_send(40, FULL), bug_line("ERROR", "media transfer termination failed"),
               bug_line("INFO", "transfered 0/0 bytes of media")}));
    for (const auto& other : waiting) {
        other->hangup();
    }
    host.events().wait_drained();
    waiting.clear();
    EXPECT_TRUE(unload().left_memory);
}

TEST_F(NetworkFault, AMediaNodeWithoutARouteIsReportedAndFoundAgain) {
    struct Row {
        const char* rule;
        const char* error;
    };
    const Row rows[] = {
        {"unreachable", "error (101): Network is unreachable"},
        {"lookup 7", "error (113): No route to host"},
        {"prohibit", "error (13): Permission denied"},
    };
    const auto call = start_tapped_call(variables);
    unsigned char sequence_number = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.rule);
        bar_loopback(row.rule);
        expect_refusals(*call, row.error);
        EXPECT_TRUE(node.receive_all(std::chrono::milliseconds(0)).empty());

        open_loopback();
        EXPECT_EQ(lines_of([&] { feed(*call, Direction::READ); }), Lines{});
        const Bytes packet = node.receive();
        ASSERT_EQ(packet.size(), 370U);
        EXPECT_EQ(packet[40], sequence_number += 2);  // The lost packet has a number, too.
    }
}

// ---- no file descriptor left ----------------------------------------------------------

class NoDescriptorLeft : public SystemFault {
  protected:
    void SetUp() override {
        if (ADDRESS_SANITIZER) {
            GTEST_SKIP() << "the sanitizers look at objects through a pipe: they need descriptors";
        }
        load();
    }

    static constexpr const char* OTHER_UUID = "c2d8e1f4-7a06-45b3-a190-9c3d5e7f2b68";

    std::unique_ptr<host::Call> start_other_call() {
        host::CallOptions options;
        options.uuid = OTHER_UUID;
        options.variables = variables;
        return start_call_as(std::move(options));
    }

    void feed_both(host::Call& call, int frames) {
        for (int i = 0; i < frames; ++i) {
            feed(call, Direction::READ);
            feed(call, Direction::WRITE);
        }
    }

    // Checks that the call's packets are complete, with this many frames on each leg and this many
    // switches.
    void expect_whole(MediaListener& listener, const std::string& packet_uuid, unsigned frames,
                      std::size_t switches) {
        const MediaListener::Packets& calls = listener.finish();
        ASSERT_EQ(calls.count(packet_uuid), 1U);
        const CallTransfer transfer(calls.at(packet_uuid));
        EXPECT_EQ(transfer.flaws(), "");
        EXPECT_EQ(transfer.legs[0].packets, frames);
        EXPECT_EQ(transfer.legs[1].packets, frames);
        EXPECT_EQ(transfer.controls.size(), switches);
    }

    const Variables variables = {{"quorvane_rule_id", "1"},
                                 {"quorvane_audio_activity", "true"},
                                 {"quorvane_report_node", "192.0.2.1:5060"},
                                 {"sip_call_id", "x"}};
};

TEST_F(NoDescriptorLeft, CallsStreamOnAndNewOnesAreTapped) {
    MediaListener listener(node);
    const auto call = start_call(variables);
    call->execute("quorvane");
    feed_both(*call, 5);
    take_log();
    {
        const NoDescriptors none;
        ASSERT_EQ(::dup(0), -1);
        feed_both(*call, 20);
        EXPECT_EQ(call_api("features"), "----AA\n");
        EXPECT_EQ(call_api("audio_activity stop"),
                  "audio_activity: control packet for feature update was sent+OK, "
                  "audio_activity: updated: old = 12, new = 0");
        EXPECT_EQ(api("media_node"), node.address() + "\n");

        const auto other = start_other_call();
        EXPECT_EQ(api(std::string(OTHER_UUID) + " detection start"),
                  "detection: app context added, id: 6109419994262705715+OK, detection: updated: "
                  "old = 0, new = 48");
        other->execute("quorvane");
        EXPECT_EQ(other->bugs().size(), 1U);
        feed_both(*other, 10);
        EXPECT_EQ(api(std::string(OTHER_UUID) + " features"), "--SSAA\n");
        hangup(*other);
    }
    feed_both(*call, 5);
    hangup(*call);
    for (const std::string& line : take_log()) {
        EXPECT_NE(line.rfind("ERROR", 0), 0U) << line;
        EXPECT_NE(line.rfind("WARNING", 0), 0U) << line;
    }
    expect_whole(listener, "3b9f6a527c1e4d809f2be4a1c05d8e37", 30, 1);
    expect_whole(listener, "c2d8e1f47a0645b3a1909c3d5e7f2b68", 10, 0);
}

TEST_F(NoDescriptorLeft, AConfigurationThatCannotWorkStillFailsAsItDoes) {
    const NoDescriptors none;
    const auto call = start_call({{"quorvane_media_node", "nowhere"}});
    call->execute("quorvane");
    EXPECT_EQ(take_log().back(), app_line("ERROR", "failed to configure application context"));
    EXPECT_TRUE(call->bugs().empty());
    feed_both(*call, 3);
    hangup(*call);
    EXPECT_EQ(host.log().count("found configured app context on channel destroy"), 1U);
}

TEST_F(NoDescriptorLeft, AnUnloadStillKeepsTheModuleForItsCalls) {
    const auto call = start_tapped_call();
    {
        const NoDescriptors none;
        EXPECT_FALSE(unload().left_memory);
        feed_both(*call, 2);
        take_log();
        EXPECT_EQ(try_load().status, SWITCH_STATUS_TERM);
        EXPECT_TRUE(host.log().contains("CONFIGURATION: failed to open file ["));
        feed_both(*call, 2);
    }
    EXPECT_EQ(call->bugs().size(), 1U);
    EXPECT_TRUE(node.receive_all(std::chrono::milliseconds(0)).empty());

    load();
    feed_both(*call, 1);
    hangup(*call);
    EXPECT_EQ(node.receive_types(), "838382");
    EXPECT_TRUE(unload().left_memory);
}

// ---- clocks ---------------------------------------------------------------------------

TEST_F(SystemFault, AWallClockThatStepsBackIsPassedOnAsItIs) {
    load();
    host::CallOptions options;
    options.created = 4102444800000000;  // In the year 2100, as if the clock had been set back.
    const auto call = start_call_as(std::move(options));
    call->execute("quorvane");
    const Bytes start = node.receive();
    EXPECT_EQ(field(start, 40, 8), hex("00 c0 03 dd 26 93 0e 00"));
    hangup(*call);
    EXPECT_EQ(node.receive_types(), "82");
}

}  // namespace

}  // namespace qv::tests
