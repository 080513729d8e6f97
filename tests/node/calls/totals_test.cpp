#include "node/calls/totals.h"

#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

TEST(TotalsTest, EveryCounterIsAdded) {
    Totals one;
    one.packets = {1, 2, 3, 4};
    one.dropped[10] = 5;
    one.calls_begun = 6;
    one.calls_ended = 7;
    one.calls_not_terminated = 8;
    one.calls_without_start = 9;
    one.audio_bytes = 10;
    one.gaps = 11;
    one.lost_packets = 12;
    one.reordered = 13;
    one.silence_samples = 14;
    one.pauses = 15;
    one.assumed_rates = 16;
    one.rate_changes = 17;
    one.file_errors = 18;
    one.calls_apart = 19;
    Totals sum = one;
    sum.add(one);
    EXPECT_EQ(sum.packets, (std::array<std::uint64_t, 4>{2, 4, 6, 8}));
    EXPECT_EQ(sum.dropped[10], 10u);
    EXPECT_EQ(sum.calls_begun, 12u);
    EXPECT_EQ(sum.calls_ended, 14u);
    EXPECT_EQ(sum.calls_not_terminated, 16u);
    EXPECT_EQ(sum.calls_without_start, 18u);
    EXPECT_EQ(sum.audio_bytes, 20u);
    EXPECT_EQ(sum.gaps, 22u);
    EXPECT_EQ(sum.lost_packets, 24u);
    EXPECT_EQ(sum.reordered, 26u);
    EXPECT_EQ(sum.silence_samples, 28u);
    EXPECT_EQ(sum.pauses, 30u);
    EXPECT_EQ(sum.assumed_rates, 32u);
    EXPECT_EQ(sum.rate_changes, 34u);
    EXPECT_EQ(sum.file_errors, 36u);
    EXPECT_EQ(sum.calls_apart, 38u);
    // A new counter has to be added, too.
    EXPECT_EQ(sizeof(Totals), (4 + DROP_COUNT + 14) * sizeof(std::uint64_t));
}

TEST(TotalsTest, PacketsAndDropsAreCountedByKind) {
    Totals totals;
    totals.count_packet(media::PacketType::START);
    totals.count_packet(media::PacketType::DATA);
    totals.count_packet(media::PacketType::DATA);
    totals.count_drop(Drop::LATE);
    EXPECT_EQ(totals.packets, (std::array<std::uint64_t, 4>{1, 0, 2, 0}));
    EXPECT_EQ(totals.all_packets(), 3u);
    EXPECT_EQ(totals.dropped_for(Drop::LATE), 1u);
    EXPECT_EQ(totals.dropped_for(Drop::DUPLICATE), 0u);
}

class CallCounterTest : public tests::NodeCallTest {
  protected:
    CallCounterTest() { watch({&counter_}); }

    Totals totals_;
    CallCounter counter_{totals_};
};

TEST_F(CallCounterTest, WholeCallIsCounted) {
    send_call();
    EXPECT_EQ(totals_.calls_begun, 1u);
    EXPECT_EQ(totals_.calls_ended, 1u);
    EXPECT_EQ(totals_.calls_not_terminated, 0u);
    EXPECT_EQ(totals_.calls_without_start, 0u);
    EXPECT_EQ(totals_.gaps, 0u);
    EXPECT_GT(totals_.audio_bytes, 0u);
}

TEST_F(CallCounterTest, CallWithoutStartPacketIsCountedAsSuch) {
    send_call("call_1_start");
    EXPECT_EQ(totals_.calls_without_start, 1u);
    EXPECT_EQ(totals_.calls_begun, 1u);
}

TEST(TotalsTest, JoinedCallWhoseRateIsNotKnownIsCountedAsApart) {
    static constexpr unsigned char SILENCE[320] = {};
    const CallLimits limits;
    Totals totals;
    CallCounter counter(totals);
    Call call({}, 0, {}, limits, {&counter});
    media::Packet packet;
    packet.type = media::PacketType::DATA;
    packet.call_uuid = call.uuid().data();
    packet.sample_count = 160;
    packet.audio = SILENCE;
    for (const std::uint16_t leg_word : {std::uint16_t{0x0000}, std::uint16_t{0x8001}}) {
        packet.leg_word = leg_word;
        packet.sequence_number = 1'000'000;
        packet.sample_offset = 160'000'000;
        call.receive(packet, {});
    }
    call.close(EndReason::SHUTDOWN);
    call.report_end(EndReason::SHUTDOWN);
    EXPECT_EQ(totals.calls_apart, 1u);
}

}  // namespace

}  // namespace qv::node
