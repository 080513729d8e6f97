#include "node/calls/reorder_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Verdict = ReorderBuffer::Verdict;

// Records what is delivered: a letter for each sample, '.' for silence.
class Tape : public OrderedOutput {
  public:
    void audio(const std::int16_t* samples, std::size_t count, std::int64_t) override {
        for (std::size_t i = 0; i < count; ++i) {
            text += static_cast<char>(samples[i]);
        }
    }
    void gap(const Gap& gap) override {
        gaps.push_back(gap);
        text.append(static_cast<std::size_t>(gap.filled_samples), '.');
    }

    std::string text;
    std::vector<Gap> gaps;
};

// Packets of four samples with the same letter: packet 1 is "aaaa", 2 is "bbbb" and so on.
class ReorderBufferTest : public testing::Test {
  protected:
    ReorderBufferTest() { restart({}); }

    void restart(const ReorderBuffer::Limits& limits) {
        buffer_ = std::make_unique<ReorderBuffer>(limits);
        buffer_->begin(1, 0);
        tape_ = Tape();
    }

    Verdict send(std::uint32_t number) { return send_at(number, (number - 1) * 4); }

    Verdict send_at(std::uint32_t number, std::uint32_t offset) {
        const std::vector<std::int16_t> samples(4,
                                                static_cast<std::int16_t>('a' + (number - 1) % 26));
        return buffer_->receive({number, offset, 4, samples.data(), sent_}, now_, tape_);
    }

    void send_all(std::initializer_list<std::uint32_t> numbers) {
        for (const std::uint32_t number : numbers) {
            send(number);
        }
    }

    void pass(Micros time) {
        now_ += time;
        buffer_->advance(now_, tape_);
    }

    void finish() { buffer_->finish(tape_); }

    const ReorderBuffer::Stats& stats() const { return buffer_->stats(); }

    Micros now_{0};
    std::int64_t sent_ = 0;
    std::unique_ptr<ReorderBuffer> buffer_;
    Tape tape_;
};

TEST_F(ReorderBufferTest, PacketsInOrderGoThroughAtOnce) {
    EXPECT_EQ(send(1), Verdict::DELIVERED);
    EXPECT_EQ(send(2), Verdict::DELIVERED);
    EXPECT_EQ(tape_.text, "aaaabbbb");
    EXPECT_EQ(stats().gaps, 0u);
    EXPECT_EQ(buffer_->position(), 8u);
}

TEST_F(ReorderBufferTest, OvertakenPacketIsPutInItsPlace) {
    send(1);
    EXPECT_EQ(send(3), Verdict::HELD);
    EXPECT_EQ(tape_.text, "aaaa");
    EXPECT_EQ(send(2), Verdict::DELIVERED);
    EXPECT_EQ(tape_.text, "aaaabbbbcccc");
    EXPECT_EQ(stats().reordered, 1u);
    EXPECT_EQ(stats().gaps, 0u);
}

TEST_F(ReorderBufferTest, HeldPacketsAreSortedAmongThemselves) {
    send_all({4, 3, 2, 1});
    EXPECT_EQ(tape_.text, "aaaabbbbccccdddd");
    EXPECT_EQ(stats().reordered, 3u);
}

TEST_F(ReorderBufferTest, MissingPacketBecomesSilenceOfItsLength) {
    send_all({1, 3});
    pass(200ms);
    EXPECT_EQ(tape_.text, "aaaa....cccc");
    ASSERT_EQ(tape_.gaps.size(), 1u);
    EXPECT_EQ(tape_.gaps[0].sequence_number, 2u);
    EXPECT_EQ(tape_.gaps[0].lost_packets, 1u);
    EXPECT_EQ(tape_.gaps[0].sample_offset, 4u);
    EXPECT_EQ(tape_.gaps[0].missing_samples, 4u);
    EXPECT_EQ(tape_.gaps[0].position, 4u);
    EXPECT_EQ(stats().lost(), 1u);
}

TEST_F(ReorderBufferTest, NothingIsGivenUpBeforeTheWaitIsOver) {
    send_all({1, 3});
    pass(199ms);
    EXPECT_EQ(tape_.text, "aaaa");
}

TEST_F(ReorderBufferTest, FullReorderWindowGivesUpTheMissingPacket) {
    ReorderBuffer::Limits limits;
    limits.packets = 2;
    restart(limits);
    send_all({1, 3, 4});
    EXPECT_EQ(tape_.text, "aaaa");
    send(5);
    EXPECT_EQ(tape_.text, "aaaa....ccccddddeeee");
}

TEST_F(ReorderBufferTest, WindowOfZeroNeverHolds) {
    ReorderBuffer::Limits limits;
    limits.packets = 0;
    restart(limits);
    send_all({1, 3});
    EXPECT_EQ(tape_.text, "aaaa....cccc");
}

TEST_F(ReorderBufferTest, TwoGapsAreTwoGaps) {
    send_all({1, 3, 5});
    pass(200ms);
    EXPECT_EQ(tape_.text, "aaaa....cccc....eeee");
    EXPECT_EQ(stats().gaps, 2u);
}

TEST_F(ReorderBufferTest, LossOfTheFirstPacketsIsAGapAtTheBeginning) {
    send(3);
    finish();
    EXPECT_EQ(tape_.text, "........cccc");
    EXPECT_EQ(tape_.gaps[0].lost_packets, 2u);
}

TEST_F(ReorderBufferTest, FinishDeliversWhatIsHeld) {
    send_all({1, 3, 6});
    finish();
    EXPECT_EQ(tape_.text, "aaaa....cccc........ffff");
    EXPECT_EQ(buffer_->held(), 0u);
}

TEST_F(ReorderBufferTest, LatePacketIsDistinguishedFromADuplicate) {
    send_all({1, 3});
    pass(200ms);
    EXPECT_EQ(send(2), Verdict::LATE);
    EXPECT_EQ(send(2), Verdict::DUPLICATE);
    EXPECT_EQ(send(1), Verdict::DUPLICATE);
    EXPECT_EQ(tape_.text, "aaaa....cccc");
    EXPECT_EQ(stats().lost(), 0u);
    EXPECT_EQ(stats().late, 1u);
    EXPECT_EQ(stats().duplicates, 2u);
}

TEST_F(ReorderBufferTest, DuplicateOfAHeldPacketIsDropped) {
    send_all({1, 3});
    EXPECT_EQ(send(3), Verdict::DUPLICATE);
    send(2);
    EXPECT_EQ(tape_.text, "aaaabbbbcccc");
}

TEST_F(ReorderBufferTest, SequenceNumbersAndOffsetsWrap) {
    buffer_->begin(0xFFFFFFFF, 0xFFFFFFFC);
    send_at(0xFFFFFFFF, 0xFFFFFFFC);
    send_at(0, 0);
    send_at(1, 4);
    EXPECT_EQ(stats().samples, 12u);
    EXPECT_EQ(stats().gaps, 0u);
}

TEST_F(ReorderBufferTest, GapAcrossTheWrapHasItsLength) {
    buffer_->begin(0xFFFFFFFE, 0xFFFFFFF8);
    send_at(0xFFFFFFFE, 0xFFFFFFF8);
    send_at(1, 4);
    pass(200ms);
    ASSERT_EQ(tape_.gaps.size(), 1u);
    EXPECT_EQ(tape_.gaps[0].sequence_number, 0xFFFFFFFFu);
    EXPECT_EQ(tape_.gaps[0].lost_packets, 2u);
    EXPECT_EQ(tape_.gaps[0].missing_samples, 8u);
}

TEST_F(ReorderBufferTest, DuplicatesAreFoundAcrossTheWrap) {
    buffer_->begin(0xFFFFFFFF, 0xFFFFFFFC);
    send_at(0xFFFFFFFF, 0xFFFFFFFC);
    send_at(0, 0);
    EXPECT_EQ(send_at(0xFFFFFFFF, 0xFFFFFFFC), Verdict::DUPLICATE);
}

TEST_F(ReorderBufferTest, EmptyPacketsCountButAddNothing) {
    send(1);
    EXPECT_EQ(buffer_->receive({2, 4, 0, nullptr, 0}, now_, tape_), Verdict::DELIVERED);
    send_at(3, 4);
    EXPECT_EQ(tape_.text, "aaaacccc");
    EXPECT_EQ(stats().gaps, 0u);
}

TEST_F(ReorderBufferTest, ForgedOffsetDoesNotFillAnything) {
    send(1);
    EXPECT_EQ(send_at(2, 0x40000000), Verdict::IMPLAUSIBLE);
    EXPECT_EQ(send(2), Verdict::DELIVERED);
    EXPECT_EQ(tape_.text, "aaaabbbb");
    EXPECT_EQ(stats().implausible, 1u);
}

TEST_F(ReorderBufferTest, MissingPacketsCannotHoldMoreThanTheyCan) {
    send(1);
    EXPECT_EQ(send_at(3, 4 + 662), Verdict::IMPLAUSIBLE);
    EXPECT_EQ(send_at(3, 4 + 661), Verdict::HELD);
}

TEST_F(ReorderBufferTest, ForgedSequenceNumberDoesNotStopTheSide) {
    send(1);
    EXPECT_EQ(send_at(0x70000000, 4), Verdict::IMPLAUSIBLE);
    EXPECT_EQ(send(2), Verdict::DELIVERED);
}

TEST_F(ReorderBufferTest, ForgedPacketInTheWindowCostsOnlyItsPlace) {
    send(1);
    send_at(3, 4);  // Its offset leaves no room for packet 2.
    send(2);
    send_all({4, 5, 6});
    finish();
    EXPECT_NE(tape_.text.find("ffff"), std::string::npos);
    EXPECT_GE(stats().implausible, 1u);
}

TEST_F(ReorderBufferTest, ForgedPacketFarAheadInsertsNoSilenceWhileTheSideGoesOn) {
    send(1);
    EXPECT_EQ(send_at(40, 20'000), Verdict::HELD);
    for (std::uint32_t number = 2; number <= 60; ++number) {
        EXPECT_EQ(send(number), Verdict::DELIVERED);
        pass(20ms);
    }
    EXPECT_EQ(stats().silence, 0u);
    EXPECT_EQ(stats().samples, 60u * 4);
    EXPECT_EQ(stats().implausible, 1u);
}

TEST_F(ReorderBufferTest, ForgedPacketAtTheEndOfASideIsDropped) {
    send(1);
    send_at(40, 20'000);
    send(2);
    finish();
    EXPECT_EQ(tape_.text, "aaaabbbb");
}

TEST_F(ReorderBufferTest, PacketThatLeavesNoTimeForWhatIsMissingWaitsToBeConfirmed) {
    buffer_->set_rate(8000);
    send(1);
    sent_ = 20'000;
    send_at(40, 8000 * 2);  // Two seconds of audio sent in 20 ms.
    pass(10s);
    EXPECT_EQ(tape_.text, "aaaa");
    send_at(41, 8000 * 2 + 4);
    pass(200ms);
    EXPECT_EQ(stats().silence, 8000u * 2 - 4);
    EXPECT_EQ(tape_.gaps.size(), 1u);
}

TEST_F(ReorderBufferTest, ForgedFirstPacketOfASideWaitsToBeConfirmed) {
    buffer_->begin(1, 0, 0);
    sent_ = 30'000;
    send_at(5000, 900'000);
    pass(10s);
    EXPECT_EQ(tape_.text, "");
    send_all({1, 2, 3});
    EXPECT_EQ(tape_.text, "aaaabbbbcccc");
    finish();
    EXPECT_EQ(stats().silence, 0u);
}

TEST_F(ReorderBufferTest, LossAfterPacketsThatCameOutOfOrderIsAGapAsEver) {
    send_all({1, 5, 2});  // 3 and 4 are lost.
    send_all({6, 7});
    pass(200ms);
    EXPECT_EQ(tape_.text, "aaaabbbb........eeeeffffgggg");
}

TEST_F(ReorderBufferTest, OfTwoHeldPacketsWithOneNumberTheOneThatFitsStays) {
    send_all({1, 3});  // 2 is lost.
    send_at(4, 8000);
    EXPECT_EQ(send(4), Verdict::HELD);
    send(5);
    pass(200ms);
    EXPECT_EQ(tape_.text, "aaaa....ccccddddeeee");
}

TEST_F(ReorderBufferTest, HeldPacketThatTheNextOnesRefuteIsDropped) {
    send(1);
    send_at(3, 600);  // Forged. Packet 2 comes later, 3 is lost.
    send_all({4, 5});
    pass(200ms);
    EXPECT_EQ(tape_.text, "aaaa........ddddeeee");
    EXPECT_EQ(stats().implausible, 1u);
}

TEST_F(ReorderBufferTest, FirstTwoPacketsOfAJoinedSideMayBeSwapped) {
    buffer_ = std::make_unique<ReorderBuffer>(ReorderBuffer::Limits{});
    buffer_->join();
    EXPECT_EQ(send(1002), Verdict::HELD);
    EXPECT_EQ(send(1001), Verdict::HELD);
    pass(200ms);
    send(1003);
    EXPECT_EQ(stats().samples, 3u * 4);
    EXPECT_EQ(stats().late, 0u);
    EXPECT_EQ(stats().gaps, 0u);
    EXPECT_EQ(buffer_->expected_offset(), 1003u * 4);
}

TEST_F(ReorderBufferTest, JoinedSideOfOnePacketIsDeliveredAtTheEnd) {
    buffer_ = std::make_unique<ReorderBuffer>(ReorderBuffer::Limits{});
    buffer_->join();
    send(1001);
    EXPECT_EQ(buffer_->expected_offset(), 4000u);
    finish();
    EXPECT_EQ(stats().samples, 4u);
}

TEST_F(ReorderBufferTest, JoinedSideIsWhereItsPacketsAreNotWhereAForgedOneWas) {
    buffer_ = std::make_unique<ReorderBuffer>(ReorderBuffer::Limits{});
    buffer_->join();
    send(900'000);
    send_all({1001, 1002, 1003});
    EXPECT_EQ(stats().samples, 2u * 4) << "the first of them only made the next one credible";
    EXPECT_EQ(stats().silence, 0u);
}

TEST_F(ReorderBufferTest, JumpThatIsContinuedIsFollowed) {
    ReorderBuffer::Limits limits;
    limits.gap_samples = 8;
    restart(limits);
    send(1);
    EXPECT_EQ(send(100), Verdict::IMPLAUSIBLE);
    EXPECT_EQ(send(101), Verdict::DELIVERED);
    EXPECT_EQ(send(102), Verdict::DELIVERED);
    EXPECT_EQ(stats().resyncs, 1u);
    EXPECT_EQ(stats().silence, 8u);
    EXPECT_EQ(stats().unfilled, 99u * 4 - 8);
    EXPECT_EQ(tape_.gaps[0].missing_samples, 99u * 4);
}

TEST_F(ReorderBufferTest, SenderThatCountsAnewIsFollowed) {
    buffer_->begin(5000, 20000);
    send_at(5000, 20000);
    EXPECT_EQ(send(1), Verdict::IMPLAUSIBLE);
    EXPECT_EQ(send(2), Verdict::DELIVERED);
    EXPECT_EQ(send(3), Verdict::DELIVERED);
    EXPECT_EQ(stats().silence, 0u);
}

TEST_F(ReorderBufferTest, DuplicateAfterALongGapIsNotTakenForLate) {
    for (std::uint32_t number = 1; number <= 10; ++number) {
        send(number);
    }
    send(2000);
    finish();
    EXPECT_EQ(send(1999), Verdict::LATE);
    EXPECT_EQ(send(2000), Verdict::DUPLICATE);
}

}  // namespace

}  // namespace qv::node
