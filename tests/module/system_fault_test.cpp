// The system fails the module while a call is tapped: what is told, what the call's audio
// feels of it (nothing), and that the next packet is tried as if nothing had been.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using host::Direction;

struct SendError {
    int error;
    const char* text;  // As the log ends.
};

// Every error that sending a datagram can give.
const SendError SEND_ERRORS[] = {
    {EPERM, "error (1): Operation not permitted"},
    {EINTR, "error (4): Interrupted system call"},
    {EIO, "error (5): Input/output error"},
    {EBADF, "error (9): Bad file descriptor"},
    {EAGAIN, "error (11): Resource temporarily unavailable"},
    {ENOMEM, "error (12): Cannot allocate memory"},
    {EACCES, "error (13): Permission denied"},
    {EFAULT, "error (14): Bad address"},
    {EINVAL, "error (22): Invalid argument"},
    {EPIPE, "error (32): Broken pipe"},
    {ENOTSOCK, "error (88): Socket operation on non-socket"},
    {EDESTADDRREQ, "error (89): Destination address required"},
    {EMSGSIZE, "error (90): Message too long"},
    {ENETDOWN, "error (100): Network is down"},
    {ENETUNREACH, "error (101): Network is unreachable"},
    {ECONNRESET, "error (104): Connection reset by peer"},
    {ENOBUFS, "error (105): No buffer space available"},
    {ECONNREFUSED, "error (111): Connection refused"},
    {EHOSTDOWN, "error (112): Host is down"},
    {EHOSTUNREACH, "error (113): No route to host"},
};

class SystemFault : public ModuleTest {
  protected:
    // A frame of 160 samples whose value is `value`; the call must get it back as it is.
    static void feed(host::Call& call, Direction direction, std::int16_t value = 0) {
        const std::vector<std::int16_t> samples(160, value);
        EXPECT_FALSE(call.feed(direction, samples.data(), 320).altered);
    }
};

TEST_F(SystemFault, EveryErrorOfSendingCostsOneFrameAndTwoLines) {
    load();
    const auto call = start_tapped_call();
    std::uint32_t sequence_number = 0;
    for (const SendError& row : SEND_ERRORS) {
        SCOPED_TRACE(row.text);
        {
            SystemCalls calls;
            calls.next("sendto", Outcome::fail(row.error));
            feed(*call, Direction::read);
            EXPECT_EQ(calls.seen("sendto").size(), 1U) << "it was tried again";
        }
        const Lines lines = take_log();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_NE(lines[0].find("]: failed to send a data (370: "), std::string::npos) << lines[0];
        EXPECT_EQ(lines[0].substr(lines[0].find("error (")), row.text);
        EXPECT_EQ(lines[1], session_line("ERROR", "media_handler",
                                         "media transfer failed to send read frame"));

        feed(*call, Direction::read);
        sequence_number += 2;  // The lost packet has counted.
        const Bytes packet = node.receive();
        ASSERT_EQ(packet.size(), 370U);
        EXPECT_EQ(packet[40], sequence_number);
        EXPECT_TRUE(take_log().empty());
    }
    EXPECT_EQ(call->bugs().size(), 1U);
}

TEST_F(SystemFault, APartialCountIsCompletedWithoutASecondFrame) {
    load();
    const auto call = start_tapped_call();
    SystemCalls calls;
    calls.next("sendto", Outcome::limit(100));
    feed(*call, Direction::read);
    const auto sends = calls.seen("sendto");
    ASSERT_EQ(sends.size(), 2U);
    EXPECT_EQ(sends[0].result, 100);
    EXPECT_EQ(sends[1].result, 270);
    EXPECT_TRUE(take_log().empty());
}

TEST_F(SystemFault, AMediaNodeThatIsAwayCostsTheCallNothing) {
    load();
    // Nobody listens there any more.
    const std::string address = MediaNode().address();
    const auto call = start_call({{"quorvane_media_node", address}});
    ASSERT_TRUE(call->execute("quorvane"));
    for (std::int16_t value = 0; value < 100; ++value) {
        feed(*call, Direction::read, value);
        feed(*call, Direction::write, value);
    }
    EXPECT_EQ(call->bugs().size(), 1U);
    hangup(*call);
    EXPECT_EQ(host.report().frames_altered, 0U);
    EXPECT_TRUE(host.log().contains("bytes of media"));
}

TEST_F(SystemFault, AStartThatCannotBeSentLeavesTheCallUntappedAndIsCleanedUp) {
    load();
    for (const int error : {EINTR, ENOBUFS, EHOSTUNREACH}) {
        SCOPED_TRACE(error);
        const auto call = start_call();
        {
            SystemCalls calls;
            calls.next("sendto", Outcome::fail(error));
            call->execute("quorvane");
        }
        feed(*call, Direction::read);
        EXPECT_TRUE(call->bugs().empty());
        EXPECT_TRUE(node.receive_all(std::chrono::milliseconds(0)).empty());
        hangup(*call);
        EXPECT_EQ(host.log().count("found configured app context on channel destroy"), 1U);
        host.log().clear();
    }
}

TEST_F(SystemFault, AConfigurationThatIsAFolderIsAnEmptyOne) {
    std::filesystem::create_directories(CONFIG_PATH);
    EXPECT_TRUE(try_load().loaded);
    EXPECT_EQ(api("media_node"), "127.0.0.1:0\n");
}

TEST_F(SystemFault, AConfigurationThatLeadsInACircleIsNotOpened) {
    const std::filesystem::path path = CONFIG_PATH;
    std::filesystem::create_directories(path.parent_path());
    std::filesystem::create_symlink("freeswitch_mod.conf", path);
    const host::LoadResult result = try_load();
    EXPECT_FALSE(result.loaded);
    EXPECT_EQ(result.status, SWITCH_STATUS_TERM);
    EXPECT_TRUE(host.log().contains("CONFIGURATION: failed to open file ["));
    EXPECT_TRUE(host.log().contains("failed to load config file ["));
}

TEST_F(SystemFault, AConfigurationOfRubbishIsReadToItsFirstBadLine) {
    configure("default_detection=term\n" + std::string(1 << 20, 'x') + "=" + std::string(10, '=') +
              "\nmedia_node=nobody\n");
    const host::LoadResult result = try_load();
    EXPECT_FALSE(result.loaded);
    EXPECT_TRUE(host.log().contains("option [media_node] to [nobody]: unexpected value format"));
}

TEST_F(SystemFault, AWallClockThatStepsBackIsPassedOnAsItIs) {
    load();
    host::CallOptions options;
    options.created = 4102444800000000;  // In the year 2100: the clock has stepped since.
    const auto call = start_call_as(std::move(options));
    call->execute("quorvane");
    const Bytes start = node.receive();
    EXPECT_EQ(field(start, 40, 8), hex("00 c0 03 dd 26 93 0e 00"));
    hangup(*call);
    EXPECT_EQ(node.receive_types(), "82");
}

}  // namespace

}  // namespace qv::tests
