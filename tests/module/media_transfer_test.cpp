#include "module/media_transfer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <numeric>
#include <string>
#include <vector>

#include "host/embedded_host.h"
#include "module/host_log.h"
#include "tests/support/clocks.h"
#include "tests/support/golden.h"
#include "tests/support/log_text.h"
#include "tests/support/media_node.h"
#include "tests/support/system_calls.h"

namespace qv::freeswitch {

namespace {

using tests::Bytes;
using tests::field;
using tests::golden;
using tests::hex;
using tests::Lines;
using tests::now_us;
using tests::timeless;

// 16-bit samples that count up from `first`, as bytes.
Bytes counting(int first, std::size_t samples) {
    Bytes bytes;
    for (std::size_t i = 0; i < samples; ++i) {
        const auto sample = static_cast<std::uint16_t>(first + static_cast<int>(i));
        bytes.push_back(static_cast<unsigned char>(sample & 0xFF));
        bytes.push_back(static_cast<unsigned char>(sample >> 8));
    }
    return bytes;
}

// A frame as the host passes it to the module.
class Frame {
  public:
    explicit Frame(Bytes bytes, const char* codec_name = "PCMU") : bytes_(std::move(bytes)) {
        implementation_.iananame = const_cast<char*>(codec_name);
        codec_.implementation = &implementation_;
        frame_.codec = &codec_;
        frame_.data = bytes_.data();
        frame_.datalen = static_cast<std::uint32_t>(bytes_.size());
    }

    switch_frame_t frame_{};
    switch_codec_t codec_{};

  private:
    Bytes bytes_;
    switch_codec_implementation_t implementation_{};
};

class Sender : public ::testing::Test {
  protected:
    Sender() {
        log::Logger::install(Logger::write, nullptr, nullptr);
        log::Logger::set_level(log::INFO);
        socket.open(0, 0);
        host::CallOptions options;
        options.uuid = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37";
        call = host.start_call(options);
        session = call->session();
        context.media_node.sin_family = AF_INET;
        context.media_node.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        context.media_node.sin_port = htons(node.port());
        be_inbound_call();
        context.created_time = 1767225600123456;
        context.configured_time = 1767225600125000;
        context.configured_clock_us = 3600000000;
        host.log().clear();
    }

    void be(const std::string& uuid, std::uint64_t key) {
        const Bytes bytes = tests::from_text(uuid);
        std::copy(bytes.begin(), bytes.end(), context.uuid);
        context.id = key;
    }
    void be_inbound_call() {
        be("3b9f6a527c1e4d809f2be4a1c05d8e37", 0x34EC6CA7460833A0);
        context.legs[1].leg_flags = 0x8001;
    }
    void be_outbound_call() {
        be("c2d8e1f47a0645b3a1909c3d5e7f2b68", 0x54C9051D9DB29633);
        context.flags = 0x0001;
        context.legs[0].leg_flags = 0x0001;
        context.legs[1].leg_flags = 0x8000;
    }

    bool send(std::uint8_t leg, Bytes bytes) {
        Frame frame(std::move(bytes));
        return transfer.media_data(session, context, leg, &frame.frame_);
    }

    std::string received() { return timeless(node.receive()); }

    Lines take_log() {
        Lines texts;
        for (const host::LogLine& line : host.log().lines()) {
            texts.push_back(tests::to_text(line));
        }
        host.log().clear();
        return texts;
    }

    static std::string line(const std::string& level, const std::string& function,
                            const std::string& text) {
        return level +
               " session 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37 media_transfer.cpp:" + function +
               " " + text;
    }

    host::EmbeddedHost host;
    std::unique_ptr<host::Call> call;
    switch_core_session_t* session = nullptr;
    tests::MediaNode node;
    net::Socket socket;
    MediaTransfer transfer{&socket};
    AppContext context;
};

// ---- start ------------------------------------------------------------------------

TEST_F(Sender, ShortestStartPacketIs83Bytes) {
    EXPECT_TRUE(transfer.media_start(session, context));
    const std::string packet = received();
    EXPECT_EQ(packet.size(), 2 * 83U);
    EXPECT_EQ(packet, timeless(golden("start_inbound_minimal")));
}

TEST_F(Sender, StartPacketWithEverything) {
    be_outbound_call();
    context.created_time = 1767225660000000;
    context.configured_time = 1767225660002500;
    context.configured_clock_us = 3660002500;
    context.flags = 0xC001;
    context.rule_id = 1234567890123456789;
    context.report_node_addr = htonl(0xC000020A);
    context.report_node_port = htons(5060);
    context.features = {0xDC, 0xCC};
    context.call_id = "f81d4fae-7dec-11d0@192.0.2.7";
    EXPECT_TRUE(transfer.media_start(session, context));
    EXPECT_EQ(received(), timeless(golden("start_outbound_full")));
}

TEST_F(Sender, StartPacketOfTheShortCall) {
    context.flags = 0x8000;
    context.rule_id = 42;
    context.features = {0xCC, 0xCC};
    context.call_id = "a84b4c76e66710@192.0.2.7";
    EXPECT_TRUE(transfer.media_start(session, context));
    EXPECT_EQ(received(), timeless(golden("call_1_start")));
}

TEST_F(Sender, WithoutRuleIdAndReportNodeBytes64To77AreZero) {
    EXPECT_TRUE(transfer.media_start(session, context));
    const Bytes packet = node.receive();
    EXPECT_EQ(field(packet, 64, 14), hex("00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
    EXPECT_EQ(field(packet, 6, 2), hex("00 00"));
}

TEST_F(Sender, ReportNodePortIsInNetworkOrder) {
    context.report_node_port = htons(5060);
    EXPECT_TRUE(transfer.media_start(session, context));
    EXPECT_EQ(field(node.receive(), 76, 2), hex("13 c4"));
}

TEST_F(Sender, CallReferenceOf1293CharactersFillsThePacket) {
    for (int i = 0; i < 1293; ++i) {
        context.call_id += static_cast<char>('0' + i % 10);
    }
    EXPECT_TRUE(transfer.media_start(session, context));
    const std::string packet = received();
    EXPECT_EQ(packet.size(), 2 * 1376U);
    EXPECT_EQ(packet, timeless(golden("start_longest_reference")));
}

TEST_F(Sender, CallReferenceOf1294CharactersIsNotSent) {
    context.call_id.assign(1294, 'x');
    EXPECT_FALSE(transfer.media_start(session, context));
    EXPECT_TRUE(node.receive_all().empty());
    EXPECT_EQ(take_log(),
              (Lines{line("ERROR", "media_start",
                          "MEDIA_TRANSFER: not enough free space (1294) in a buffer to write app "
                          "context payload (1295)")}));
}

// ---- data -------------------------------------------------------------------------

TEST_F(Sender, FrameOf320BytesIsOnePacketWithoutAWarning) {
    EXPECT_TRUE(send(0, counting(0, 160)));
    const std::string packet = received();
    EXPECT_EQ(packet.size(), 2 * 370U);
    EXPECT_EQ(packet, timeless(golden("data_read_first")));
    EXPECT_TRUE(node.receive_all().empty());
    EXPECT_TRUE(take_log().empty());
}

TEST_F(Sender, SecondPacketOfALegGoesOnWhereTheFirstEnded) {
    EXPECT_TRUE(send(1, Bytes(320)));
    node.receive();
    EXPECT_TRUE(send(1, counting(-160, 160)));
    EXPECT_EQ(received(), timeless(golden("data_write_second")));
}

TEST_F(Sender, LegsAreCountedApart) {
    EXPECT_TRUE(send(0, Bytes(320)));
    EXPECT_TRUE(send(0, Bytes(320)));
    EXPECT_TRUE(send(1, Bytes(16)));
    node.receive();
    EXPECT_EQ(field(node.receive(), 40, 8), hex("02 00 00 00 a0 00 00 00"));
    EXPECT_EQ(received(), timeless(golden("call_3_write")));
}

TEST_F(Sender, LegsOfAnOutboundCallChangeSides) {
    be_outbound_call();
    const Bytes samples = tests::from_text("01 00 ff ff ff 7f 00 80");
    EXPECT_TRUE(send(0, samples));
    EXPECT_EQ(received(), timeless(golden("data_read_outbound")));
    EXPECT_TRUE(send(1, samples));
    EXPECT_EQ(received(), timeless(golden("data_write_outbound")));
}

TEST_F(Sender, EmptyFrameIsAPacketWithoutSamples) {
    context.legs[0].sequence_number = 2;
    context.legs[0].sample_offset = 320;
    EXPECT_TRUE(send(0, {}));
    const std::string packet = received();
    EXPECT_EQ(packet.size(), 2 * 50U);
    EXPECT_EQ(packet, timeless(golden("data_zero_samples")));
    EXPECT_EQ(context.legs[0].sequence_number, 3U);
    EXPECT_EQ(context.legs[0].sample_offset, 320U);
}

TEST_F(Sender, NullFrameSendsNothingAndIsNoFailure) {
    EXPECT_TRUE(transfer.media_data(session, context, 0, nullptr));
    EXPECT_TRUE(node.receive_all().empty());
    EXPECT_EQ(context.legs[0].sequence_number, 0U);
}

TEST_F(Sender, FrameOf1322BytesIsTheLargestPacket) {
    EXPECT_TRUE(send(0, counting(0, 661)));
    const std::string packet = received();
    EXPECT_EQ(packet.size(), 2 * 1372U);
    EXPECT_EQ(packet, timeless(golden("data_maximum")));
    EXPECT_TRUE(take_log().empty());
}

TEST_F(Sender, FrameOf1324BytesIsSplit) {
    EXPECT_TRUE(send(0, counting(0, 662)));
    EXPECT_EQ(received(), timeless(golden("data_maximum")));
    const Bytes second = node.receive();
    EXPECT_EQ(second.size(), 52U);
    // Sequence number 2, sample offset 661, one sample, which is number 661.
    EXPECT_EQ(field(second, 40, 12), hex("02 00 00 00 95 02 00 00 01 00 95 02"));
}

TEST_F(Sender, FrameOf3000BytesIsThreePacketsAndAWarning) {
    EXPECT_TRUE(send(0, counting(0, 1500)));
    const std::vector<Bytes> packets = node.receive_all();
    ASSERT_EQ(packets.size(), 3U);
    EXPECT_EQ(packets[0].size(), 50U + 1322U);
    EXPECT_EQ(packets[1].size(), 50U + 1322U);
    EXPECT_EQ(packets[2].size(), 50U + 356U);
    EXPECT_EQ(field(packets[0], 40, 10), hex("01 00 00 00 00 00 00 00 95 02"));  // 0, 661
    EXPECT_EQ(field(packets[1], 40, 10), hex("02 00 00 00 95 02 00 00 95 02"));  // 661, 661
    EXPECT_EQ(field(packets[2], 40, 10), hex("03 00 00 00 2a 05 00 00 b2 00"));  // 1322, 178
    EXPECT_EQ(take_log(),
              (Lines{line("WARNING", "media_data",
                          "MEDIA_TRANSFER: \"PCMU\" read frame of 3000 byte(s) split for 3 "
                          "chunks")}));
}

TEST_F(Sender, ChunksOfAFrameHoldItsBytesInOrder) {
    const Bytes samples = counting(7, 1500);
    EXPECT_TRUE(send(1, samples));
    Bytes joined;
    for (const Bytes& packet : node.receive_all()) {
        EXPECT_EQ(field(packet, 0, 32), field(golden("call_3_write"), 0, 32));
        joined.insert(joined.end(), packet.begin() + 50, packet.end());
    }
    EXPECT_EQ(tests::to_text(joined), tests::to_text(samples));
}

TEST_F(Sender, WarningOfASplitNamesTheWriteLeg) {
    Frame frame(Bytes(2000), "L16");
    EXPECT_TRUE(transfer.media_data(session, context, 1, &frame.frame_));
    EXPECT_EQ(take_log(),
              (Lines{line("WARNING", "media_data",
                          "MEDIA_TRANSFER: \"L16\" write frame of 2000 byte(s) split for 2 "
                          "chunks")}));
}

TEST_F(Sender, WarningOfASplitTellsTheSizeBeforeRounding) {
    Frame frame(Bytes(2001), "L16");
    EXPECT_TRUE(transfer.media_data(session, context, 0, &frame.frame_));
    EXPECT_EQ(take_log(),
              (Lines{line("WARNING", "media_data",
                          "MEDIA_TRANSFER: \"L16\" read frame of 2001 byte(s) split for 2 "
                          "chunks")}));
}

TEST_F(Sender, WarningOfASplitEndsAfterTheQuoteWithoutACodecName) {
    const Lines cut = {line("WARNING", "media_data", "MEDIA_TRANSFER: \"")};
    Frame nameless(Bytes(2000), nullptr);
    EXPECT_TRUE(transfer.media_data(session, context, 0, &nameless.frame_));
    EXPECT_EQ(take_log(), cut);
    nameless.codec_.implementation = nullptr;
    EXPECT_TRUE(transfer.media_data(session, context, 0, &nameless.frame_));
    EXPECT_EQ(take_log(), cut);
    nameless.frame_.codec = nullptr;
    EXPECT_TRUE(transfer.media_data(session, context, 0, &nameless.frame_));
    EXPECT_EQ(take_log(), cut);
}

TEST_F(Sender, OddFrameLosesItsLastByteAndIsCounted) {
    EXPECT_TRUE(send(0, Bytes(321, 0x55)));
    EXPECT_EQ(node.receive().size(), 370U);
    EXPECT_EQ(context.legs[0].odd_frames, 1U);
    EXPECT_EQ(context.legs[1].odd_frames, 0U);
    EXPECT_EQ(context.legs[0].bytes_sent, 320U);
    EXPECT_EQ(context.legs[0].sample_offset, 160U);
}

TEST_F(Sender, FrameOfOneByteIsAnOddFrameWithoutSamples) {
    EXPECT_TRUE(send(0, Bytes(1)));
    EXPECT_EQ(node.receive().size(), 50U);
    EXPECT_EQ(context.legs[0].odd_frames, 1U);
}

TEST_F(Sender, OddFrameOf1323BytesIsNotSplit) {
    EXPECT_TRUE(send(0, Bytes(1323)));
    EXPECT_EQ(node.receive_all().size(), 1U);
    EXPECT_TRUE(take_log().empty());
}

TEST_F(Sender, CountersWrapThroughZero) {
    context.legs[0].sequence_number = 4294967294;
    context.legs[0].sample_offset = 4294967288;
    const Bytes samples = tests::from_text("00 00 64 00 c8 00 64 00 00 00 9c ff 38 ff 9c ff");
    EXPECT_TRUE(send(0, samples));
    EXPECT_EQ(received(), timeless(golden("data_before_wrap")));
    EXPECT_TRUE(send(0, samples));
    EXPECT_EQ(received(), timeless(golden("data_after_wrap")));
}

TEST_F(Sender, FrameIsNotAltered) {
    Frame frame(counting(0, 800));
    const Bytes before = counting(0, 800);
    EXPECT_TRUE(transfer.media_data(session, context, 0, &frame.frame_));
    const auto* data = static_cast<const unsigned char*>(frame.frame_.data);
    EXPECT_EQ(frame.frame_.datalen, 1600U);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), data));
}

TEST_F(Sender, FailedFirstChunkIsCountedInSequenceAndOffsetButNotInBytes) {
    tests::SystemCalls calls;
    calls.next("sendto", tests::Outcome::fail(ENETUNREACH));
    EXPECT_FALSE(send(0, Bytes(320)));
    EXPECT_EQ(context.legs[0].sequence_number, 1U);
    EXPECT_EQ(context.legs[0].sample_offset, 160U);
    EXPECT_EQ(context.legs[0].bytes_sent, 0U);
}

TEST_F(Sender, FailedSecondChunkDropsTheRestOfTheFrame) {
    tests::SystemCalls calls;
    calls.next("sendto", tests::Outcome::pass());
    calls.next("sendto", tests::Outcome::fail(ENETUNREACH));
    EXPECT_FALSE(send(0, Bytes(3000)));
    EXPECT_EQ(calls.seen("sendto").size(), 2U);
    EXPECT_EQ(node.receive_all().size(), 1U);
    EXPECT_EQ(context.legs[0].bytes_sent, 1322U);
    EXPECT_EQ(context.legs[0].sequence_number, 2U);
    EXPECT_EQ(context.legs[0].sample_offset, 1322U);
}

TEST_F(Sender, FailedSendIsLoggedByTheSocketAloneAndNotSentAgain) {
    tests::SystemCalls calls;
    calls.next("sendto", tests::Outcome::fail(ENETUNREACH));
    EXPECT_FALSE(send(0, Bytes(3000)));
    EXPECT_EQ(calls.seen("sendto").size(), 1U);
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].rfind("ERROR log net_socket.cpp:- SOCKET[", 0), 0U) << lines[0];
    EXPECT_NE(lines[0].find("]: failed to send a data (1372: "), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("), error (101): Network is unreachable"), std::string::npos);
}

TEST_F(Sender, EachDatagramIsOneSystemCall) {
    tests::SystemCalls calls;
    EXPECT_TRUE(send(0, Bytes(3000)));
    EXPECT_EQ(calls.names(), (std::vector<std::string>{"sendto", "sendto", "sendto"}));
    EXPECT_EQ(calls.seen("sendto").front().text, node.address());
}

// ---- control and terminate --------------------------------------------------------

TEST_F(Sender, ControlPacketCarriesTheRequestedFeatures) {
    context.features = {0xCC, 0xCC};
    context.requested_features = {0xCC, 0xC0};
    EXPECT_TRUE(transfer.media_features_update(session, context));
    const std::string packet = received();
    EXPECT_EQ(packet.size(), 2 * 42U);
    EXPECT_EQ(packet, timeless(golden("call_6_control")));
}

TEST_F(Sender, ControlPacketDoesNotMergeTheFeatures) {
    context.features = {0xCC, 0xCC};
    context.requested_features = {0x30, 0x10};
    EXPECT_TRUE(transfer.media_features_update(session, context));
    EXPECT_EQ(context.features.supported, 0xCC);
    EXPECT_EQ(context.features.active, 0xCC);
}

TEST_F(Sender, ControlPacketOfAnOutboundCallHasTheSameLegWord) {
    be_outbound_call();
    context.requested_features = {0xDC, 0xDC};
    EXPECT_TRUE(transfer.media_features_update(session, context));
    EXPECT_EQ(received(), timeless(golden("control_detection")));
}

TEST_F(Sender, TerminatePacketIs40Bytes) {
    EXPECT_TRUE(transfer.media_terminate(session, context));
    const std::string packet = received();
    EXPECT_EQ(packet.size(), 2 * 40U);
    EXPECT_EQ(packet, timeless(golden("call_7_terminate")));
}

TEST_F(Sender, TerminatePacketOfAnOutboundCallHasLegWordZero) {
    be_outbound_call();
    EXPECT_TRUE(transfer.media_terminate(session, context));
    EXPECT_EQ(received(), timeless(golden("terminate")));
}

TEST_F(Sender, EveryOperationReturnsWhatTheSocketSays) {
    tests::SystemCalls calls;
    for (int i = 0; i < 3; ++i) {
        calls.next("sendto", tests::Outcome::fail(EPERM));
    }
    EXPECT_FALSE(transfer.media_start(session, context));
    EXPECT_FALSE(transfer.media_features_update(session, context));
    EXPECT_FALSE(transfer.media_terminate(session, context));
}

// ---- all packets ------------------------------------------------------------------

TEST_F(Sender, SendTimeIsTheSteadyClockInMicroseconds) {
    const std::int64_t before = now_us<std::chrono::steady_clock>();
    transfer.media_start(session, context);
    transfer.media_features_update(session, context);
    transfer.media_terminate(session, context);
    send(0, Bytes(3000));
    const std::int64_t after = now_us<std::chrono::steady_clock>();
    std::int64_t last = before;
    const std::vector<Bytes> packets = node.receive_all();
    ASSERT_EQ(packets.size(), 6U);
    for (const Bytes& packet : packets) {
        const auto time = static_cast<std::int64_t>(media::get_u64(packet.data() + 32));
        EXPECT_GE(time, last);
        EXPECT_LE(time, after);
        last = time;
    }
}

TEST_F(Sender, EveryPacketIsTracedOrLoggedAtDebug) {
    log::Logger::set_level(log::TRACE);
    transfer.media_start(session, context);
    send(0, Bytes(321));
    send(1, Bytes(2));
    transfer.media_features_update(session, context);
    transfer.media_terminate(session, context);
    EXPECT_EQ(take_log(),
              (Lines{line("DEBUG", "media_start", "MEDIA_TRANSFER: send start packet for leg (0)"),
                     line("DEBUG1", "media_data",
                          "MEDIA_TRANSFER: send data packet of 320 byte(s) for leg/call_side "
                          "(0/originator)"),
                     line("DEBUG1", "media_data",
                          "MEDIA_TRANSFER: send data packet of 2 byte(s) for leg/call_side "
                          "(0/terminator)"),
                     line("DEBUG", "media_features_update",
                          "MEDIA_TRANSFER: send control packet for leg (0)"),
                     line("DEBUG", "media_terminate",
                          "MEDIA_TRANSFER: send terminate packet for leg (0)")}));
}

TEST_F(Sender, LinesOfAnOutboundCallTellLegOne) {
    be_outbound_call();
    log::Logger::set_level(log::TRACE);
    transfer.media_start(session, context);
    send(0, Bytes(2));
    send(1, Bytes(2));
    transfer.media_features_update(session, context);
    transfer.media_terminate(session, context);
    EXPECT_EQ(take_log(),
              (Lines{line("DEBUG", "media_start", "MEDIA_TRANSFER: send start packet for leg (1)"),
                     line("DEBUG1", "media_data",
                          "MEDIA_TRANSFER: send data packet of 2 byte(s) for leg/call_side "
                          "(1/terminator)"),
                     line("DEBUG1", "media_data",
                          "MEDIA_TRANSFER: send data packet of 2 byte(s) for leg/call_side "
                          "(1/originator)"),
                     line("DEBUG", "media_features_update",
                          "MEDIA_TRANSFER: send control packet for leg (1)"),
                     line("DEBUG", "media_terminate",
                          "MEDIA_TRANSFER: send terminate packet for leg (1)")}));
}

TEST_F(Sender, StartThatIsTooLongIsNotLoggedAsSent) {
    log::Logger::set_level(log::TRACE);
    context.call_id.assign(2000, 'x');
    EXPECT_FALSE(transfer.media_start(session, context));
    const Lines lines = take_log();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].rfind("ERROR ", 0), 0U);
}

}  // namespace

}  // namespace qv::freeswitch
