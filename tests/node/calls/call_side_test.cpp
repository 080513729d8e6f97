#include "node/calls/call_side.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "node/calls/call.h"

namespace {

using namespace qv::node;
using namespace std::chrono_literals;
using qv::media::Packet;
using qv::media::PacketType;

// Records what a side passes on, one word each: "audio160@0" means 160 samples from position 0.
class SideDiary : public CallListener {
  public:
    void side_begun(const Call& call, Side which) override {
        add(name_of(which) + std::string("@") + std::to_string(call.side(which).joined_at()));
    }
    void rate_decided(const Call& call, Side which) override {
        const CallSide& side = call.side(which);
        add("rate" + std::to_string(side.sample_rate()) + (side.rate_assumed() ? "?" : ""));
    }
    void audio(const Call&, Side, const Audio& audio) override {
        add("audio" + std::to_string(audio.count) + '@' + std::to_string(audio.position));
        last_sample = audio.samples[0];
        last_send_time = audio.send_time;
    }
    void gap(const Call&, Side, const Gap& gap) override {
        add("gap" + std::to_string(gap.filled_samples) + '@' + std::to_string(gap.position));
    }
    void pause(const Call&, Side, const Pause& pause) override {
        add("pause" + std::to_string(pause.samples) + '@' + std::to_string(pause.position));
    }
    void running_changed(const Call& call, Side which, std::uint64_t position) override {
        const bool on = call.side(which).running().activity;
        add((on ? "on@" : "off@") + std::to_string(position));
    }
    void late(const Call&, Side, const Packet& packet) override {
        add("late" + std::to_string(packet.sequence_number));
    }

    // What was reported since the last call.
    std::string take() { return std::exchange(text_, {}); }

    std::int16_t last_sample = 0;
    std::int64_t last_send_time = 0;

  private:
    void add(const std::string& word) { text_ += (text_.empty() ? "" : " ") + word; }

    std::string text_;
};

// The originator's side of a call. Each packet holds 160 samples, which are 20 ms.
class CallSideTest : public testing::Test {
  protected:
    CallSideTest() { restart(8000); }

    void restart(int sample_rate) {
        limits_.sample_rate = sample_rate;
        call_ = std::make_unique<Call>(Uuid{}, 7, Arrival{now_, {}}, limits_,
                                       std::vector<CallListener*>{&diary_});
    }

    const CallSide& side(Side which = Side::ORIGINATOR) const { return call_->side(which); }

    Packet packet(std::uint32_t number) const {
        static constexpr unsigned char AUDIO[320] = {0x34, 0x12};
        Packet made;
        made.type = PacketType::DATA;
        made.call_key = 7;
        made.send_time = 50'000'000 + 20'000 * std::int64_t{number} + held_up_;
        made.sequence_number = number;
        made.sample_offset = 160 * (number - 1);
        made.sample_count = 160;
        made.audio = AUDIO;
        return made;
    }
    std::optional<Drop> receive(const Packet& packet) { return call_->receive(packet, {now_, {}}); }
    std::optional<Drop> data(std::uint32_t number) { return receive(packet(number)); }
    void talk(std::uint32_t first, std::uint32_t last) {
        for (std::uint32_t number = first; number <= last; ++number) {
            data(number);
        }
    }
    // Starts or stops the activity analysis of the originator's audio.
    void switch_activity(bool on, std::int64_t send_time) {
        Packet made;
        made.type = PacketType::CONTROL;
        made.call_key = 7;
        made.send_time = send_time;
        made.features = {0x04, static_cast<std::uint8_t>(on ? 0x04 : 0)};
        receive(made);
    }
    void pass(Micros time) {
        now_ += time;
        call_->tick(now_);
    }

    CallLimits limits_;
    Micros now_{1'000'000};
    std::int64_t held_up_ = 0;  // Delay of the sender, in microseconds.
    SideDiary diary_;
    std::unique_ptr<Call> call_;
};

TEST_F(CallSideTest, PacketsInOrderGoOnAtOnce) {
    EXPECT_EQ(data(1), std::nullopt);
    EXPECT_EQ(data(2), std::nullopt);
    EXPECT_EQ(diary_.take(), "originator@0 rate8000 audio160@0 audio160@160");
    EXPECT_EQ(diary_.last_sample, 0x1234);
    EXPECT_EQ(diary_.last_send_time, 50'040'000);
    EXPECT_EQ(side().bytes(), 640u);
    EXPECT_EQ(side().position(), 320u);
}

TEST_F(CallSideTest, TerminatorsPacketsAreOfTheOtherSide) {
    Packet made = packet(1);
    made.leg_word = 0x8001;
    receive(made);
    EXPECT_EQ(diary_.take(), "terminator@0 rate8000 audio160@0");
    EXPECT_FALSE(side().begun());
    EXPECT_EQ(side(Side::TERMINATOR).leg(), 1);
}

TEST_F(CallSideTest, PacketOfAnotherLegIsDropped) {
    data(1);
    Packet made = packet(2);
    made.leg_word = 0x8000;
    EXPECT_EQ(receive(made), Drop::OTHER_LEG);
    EXPECT_EQ(side().stats().packets, 1u);
}

TEST_F(CallSideTest, LossIsAGapOnceTheWaitIsOver) {
    data(1);
    data(3);
    diary_.take();
    pass(199ms);
    EXPECT_EQ(diary_.take(), "");
    pass(1ms);
    EXPECT_EQ(diary_.take(), "gap160@160 audio160@320");
    EXPECT_EQ(data(2), Drop::LATE);
    EXPECT_EQ(diary_.take(), "late2");
}

TEST_F(CallSideTest, DuplicatesAndImplausiblePacketsAreDropped) {
    data(1);
    EXPECT_EQ(data(1), Drop::DUPLICATE);
    Packet forged = packet(2);
    forged.sample_offset = 0x40000000;
    EXPECT_EQ(receive(forged), Drop::IMPLAUSIBLE);
}

TEST_F(CallSideTest, RateIsDecidedOnceItIsFound) {
    restart(0);
    talk(1, 2);
    EXPECT_EQ(diary_.take(), "originator@0 audio160@0 audio160@160");
    EXPECT_EQ(side().sample_rate(), 0);
    talk(3, 60);
    EXPECT_NE(diary_.take().find("rate8000 audio"), std::string::npos);
    talk(61, 120);
    EXPECT_EQ(diary_.take().find("rate"), std::string::npos) << "only once";
}

TEST_F(CallSideTest, RateOfAShortSideIsDecidedAtTheEnd) {
    restart(0);
    data(1);
    diary_.take();
    call_->end(EndReason::TERMINATED);
    EXPECT_EQ(diary_.take(), "rate8000?");
    EXPECT_EQ(side(Side::TERMINATOR).sample_rate(), 0) << "of which nothing came";
}

TEST_F(CallSideTest, RateCanBeDecidedBeforeItIsFound) {
    restart(0);
    data(1);
    diary_.take();
    EXPECT_EQ(call_->decide_rate(Side::ORIGINATOR), 8000);
    EXPECT_EQ(call_->decide_rate(Side::ORIGINATOR), 8000);
    EXPECT_EQ(diary_.take(), "rate8000?");
}

TEST_F(CallSideTest, PauseOfTheSenderComesBeforeTheAudioThatEndsIt) {
    data(1);
    diary_.take();
    held_up_ = 1'000'000;
    talk(2, 11);
    EXPECT_EQ(diary_.take(), "") << "the sender may still catch up";
    EXPECT_EQ(side().position(), 160u);
    data(12);
    EXPECT_EQ(diary_.take().substr(0, 41), "pause8000@160 audio160@160 audio160@320 a");
    EXPECT_EQ(side().position(), 12u * 160);
    EXPECT_EQ(side().position_with_pauses(), 12u * 160 + 8000);
}

TEST_F(CallSideTest, StallThatTheSenderCatchesUpWithIsNoPause) {
    for (const std::uint32_t stall : {21u, 50u}) {  // 420 ms and 1 s.
        restart(8000);
        talk(1, 100);
        for (std::uint32_t number = 101; number <= 100 + stall; ++number) {
            Packet made = packet(number);
            made.send_time = packet(100 + stall).send_time + number;  // All at once.
            receive(made);
        }
        talk(101 + stall, 300);
        EXPECT_EQ(side().pauses(), 0u);
        EXPECT_EQ(diary_.take().find("pause"), std::string::npos);
        EXPECT_EQ(side().position(), 300u * 160);
    }
}

TEST_F(CallSideTest, StallThatIsCaughtUpWithSlowlyIsNoPause) {
    talk(1, 100);
    for (std::uint32_t number = 101; number <= 200; ++number) {  // Twice as fast as real time.
        held_up_ = std::max<std::int64_t>(0, 1'000'000 - 10'000 * (number - 101));
        data(number);
    }
    talk(201, 250);
    EXPECT_EQ(side().pauses(), 0u);
    EXPECT_EQ(side().position(), 250u * 160);
}

TEST_F(CallSideTest, PauseIsAsLongAsThePunctualPacketsBehindItSay) {
    talk(1, 100);
    held_up_ = 1'600'000;
    data(101);
    held_up_ = 1'500'000;
    talk(102, 130);
    EXPECT_NE(diary_.take().find("pause12000@16000 audio160@16000"), std::string::npos);
}

TEST_F(CallSideTest, PauseAtTheEndIsReportedAfterASecond) {
    talk(1, 100);
    held_up_ = 500'000;
    data(101);
    diary_.take();
    pass(999ms);
    EXPECT_EQ(diary_.take(), "");
    pass(1ms);
    EXPECT_EQ(diary_.take(), "pause4000@16000 audio160@16000");
}

TEST_F(CallSideTest, LongPauseOfASenderFasterThanRealTimeHasItsLength) {
    for (const std::int64_t seconds : {300, 86'400}) {
        restart(8000);
        held_up_ = 0;
        talk(1, 100);
        held_up_ = seconds * 1'000'000;
        talk(101, 150);
        EXPECT_NE(diary_.take().find("pause" + std::to_string(seconds * 8000) + "@16000 "),
                  std::string::npos);
    }
}

TEST_F(CallSideTest, OneForgedSendTimeIsNoPause) {
    talk(1, 100);
    held_up_ = 90'000'000;
    data(101);
    held_up_ = 0;
    talk(102, 150);
    EXPECT_EQ(side().pauses(), 0u);
    EXPECT_EQ(side().position(), 150u * 160);
}

// Both sides of a call that has been running for these times and is joined at the same moment.
TEST_F(CallSideTest, SidesOfAJoinedCallBeginAtTheirPlaceInTime) {
    struct Case {
        int rate;
        std::uint32_t originator_s;
        std::uint32_t terminator_s;
    };
    for (const Case& one :
         {Case{8000, 60, 40}, Case{8000, 40, 60}, Case{8000, 300, 290}, Case{8000, 130, 110},
          Case{0, 60, 40}, Case{0, 40, 60}, Case{0, 300, 290}, Case{0, 130, 110}, Case{0, 500, 3},
          Case{0, 3, 500}, Case{8000, 1, 30}}) {
        restart(one.rate);
        const std::uint32_t ahead[2] = {one.originator_s * 50, one.terminator_s * 50};
        for (std::uint32_t number = 1; number <= 200; ++number) {
            for (const std::uint32_t side : {0u, 1u}) {
                Packet made = packet(number + ahead[side]);
                made.send_time = 5'000'000'000 + 20'000 * std::int64_t{number};
                made.leg_word = side == 0 ? 0x0000 : 0x8001;
                receive(made);
            }
            pass(20ms);
        }
        call_->end(EndReason::SHUTDOWN);
        EXPECT_EQ(side(Side::ORIGINATOR).position_with_pauses(),
                  side(Side::TERMINATOR).position_with_pauses())
            << one.rate << ' ' << one.originator_s << ' ' << one.terminator_s;
        EXPECT_FALSE(call_->sides_may_be_apart());
    }
}

TEST_F(CallSideTest, SideThatBeginsLaterInAJoinedCallIsPlacedToTheMillisecond) {
    talk(1'000'000, 1'000'001);
    Packet made = packet(2'000'000);
    made.leg_word = 0x8001;
    made.send_time = packet(1'000'000).send_time + 100'000;
    receive(made);
    diary_.take();
    pass(200ms);
    EXPECT_EQ(diary_.take(), "audio160@0 audio160@160 pause800@0 audio160@0");
}

TEST_F(CallSideTest, JoiningIsReportedAsUnsureWhereNoRateIsFound) {
    restart(0);
    data(1'000'000);
    Packet made = packet(2'000'000);
    made.leg_word = 0x8001;
    receive(made);
    call_->end(EndReason::SHUTDOWN);
    EXPECT_TRUE(call_->sides_may_be_apart());
}

TEST_F(CallSideTest, ReceiverThatJoinsLateBeginsWithTheFirstPacket) {
    data(1'000'001);
    data(1'000'000);  // The first two were swapped.
    pass(200ms);
    EXPECT_EQ(diary_.take(), "originator@0 rate8000 audio160@0 audio160@160");
    EXPECT_EQ(side().joined_at(), 159'999'840u);
}

TEST_F(CallSideTest, AudioIsSplitWhereAFeatureIsSwitched) {
    limits_.services.activity = true;
    restart(8000);
    data(1);
    data(3);  // Sent at 50.060 s. The packet is held.
    diary_.take();
    switch_activity(true, 50'045'000);
    switch_activity(false, 50'050'000);
    EXPECT_EQ(diary_.take(), "");
    data(2);
    EXPECT_EQ(diary_.take(), "audio160@160 audio40@320 on@360 audio40@360 off@400 audio80@400");
    EXPECT_EQ(side().position(), 480u);
    EXPECT_EQ(side().position_with_pauses(), 480u);
}

TEST_F(CallSideTest, FeatureIsSwitchedAtOnceWhenAllAudioBeforeHasBeenPassedOn) {
    limits_.services.activity = true;
    restart(8000);
    talk(1, 2);
    diary_.take();
    switch_activity(true, 50'045'000);
    EXPECT_EQ(diary_.take(), "on@320");
}

TEST_F(CallSideTest, FeatureIsSwitchedBehindTheAudioThatWaitsUntilAPauseIsCertain) {
    limits_.services.activity = true;
    restart(8000);
    talk(1, 2);
    diary_.take();
    held_up_ = 1'000'000;
    data(3);
    switch_activity(true, 51'065'000);
    EXPECT_EQ(diary_.take(), "");
    talk(4, 13);
    EXPECT_EQ(diary_.take().substr(0, 46), "pause8000@320 audio160@320 on@480 audio160@480");
}

TEST_F(CallSideTest, LevelIsThatOfTheAudio) {
    data(1);
    EXPECT_GT(side().level().peak_db(), -17);
    EXPECT_LT(side().level().peak_db(), -16);
}

TEST_F(CallSideTest, PositionAtATimeAfterAllPacketsIsTheNextSample) {
    talk(1, 3);
    EXPECT_EQ(side().position_at(60'000'000), 480u);
}

TEST_F(CallSideTest, PositionCountsPacketsThatAreHeld) {
    data(1);
    data(3);
    EXPECT_EQ(side().position(), 160u);
    EXPECT_EQ(side().position_at(60'000'000), 480u);
}

TEST_F(CallSideTest, PositionCountsAudioThatWaitsUntilAPauseIsCertain) {
    talk(1, 2);
    held_up_ = 1'000'000;
    data(3);
    EXPECT_EQ(side().position(), 320u);
    EXPECT_EQ(side().position_at(60'000'000), 480u);
}

TEST_F(CallSideTest, PositionAtAnEarlierTimeIsEarlier) {
    talk(1, 3);  // The last one is sent at 50.060 s.
    EXPECT_EQ(side().position_at(50'040'000), 320u);
    EXPECT_EQ(side().position_at(50'035'000), 280u);
    EXPECT_EQ(side().position_at(0), 0u);
}

TEST_F(CallSideTest, ForgedPacketDoesNotMoveThePosition) {
    talk(1, 3);
    Packet forged = packet(4);
    forged.sample_offset = 0x40000000;
    receive(forged);
    EXPECT_EQ(side().position_at(60'000'000), 480u);
}

TEST_F(CallSideTest, SideOfWhichNothingCameIsAtItsBeginning) {
    EXPECT_EQ(side().position_at(50'000'000), 0u);
    EXPECT_FALSE(side().place().has_value());
}

}  // namespace
