#include "node/calls/call_side.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <sstream>
#include <string>

#include "node/calls/call.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using media::Packet;
using media::PacketType;

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
    void rate_changed(const Call&, Side, const RateChange& change) override {
        add("rate" + std::to_string(change.old_rate) + '>' + std::to_string(change.new_rate) + '@' +
            std::to_string(change.position));
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
    call_->close(EndReason::TERMINATED);
    call_->report_end(EndReason::TERMINATED);
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
        call_->close(EndReason::SHUTDOWN);
        call_->report_end(EndReason::SHUTDOWN);
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
    call_->close(EndReason::SHUTDOWN);
    call_->report_end(EndReason::SHUTDOWN);
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

// The originator's side of a call whose sample rate is found from its packets.
class RateChangeTest : public CallSideTest {
  protected:
    RateChangeTest() { restart(0); }

    // Sends frames of that many samples, one each 20 ms, in packets of at most 661 samples.
    void speak(int frames, int samples, std::int64_t frame_us = 20'000) {
        for (int i = 0; i < frames; ++i) {
            time_ += frame_us;
            for (int left = samples; left > 0; left -= 661) {
                send(std::min(left, 661));
            }
        }
    }
    void send(int samples) {
        static constexpr unsigned char AUDIO[1322] = {0x34, 0x12};
        Packet made = packet(++number_);
        made.send_time = time_;
        made.sample_offset = offset_;
        made.sample_count = static_cast<std::uint16_t>(samples);
        made.audio = AUDIO;
        offset_ += static_cast<std::uint32_t>(samples);
        receive(made);
    }
    // The rates of the side and where they changed, as "8000 16000@160".
    std::string rates() {
        std::string text;
        std::string diary = diary_.take();
        std::istringstream words(diary);
        for (std::string word; words >> word;) {
            if (word.rfind("rate", 0) == 0) {
                const std::size_t before = word.find('>');
                text += (text.empty() ? "" : " ") +
                        word.substr(before == std::string::npos ? 4 : before + 1);
            }
        }
        return text;
    }

    std::uint32_t number_ = 0;
    std::uint32_t offset_ = 0;
    std::int64_t time_ = 50'000'000;
};

TEST_F(RateChangeTest, ChangeLiesAtTheFirstPacketOfTheNewRate) {
    speak(100, 160);
    speak(100, 320);
    EXPECT_EQ(rates(), "8000 16000@16000");
    EXPECT_EQ(side().sample_rate(), 16000);
    EXPECT_EQ(side().position(), 16'000u + 32'000);
    EXPECT_EQ(side().pauses(), 0u);
    EXPECT_DOUBLE_EQ(side().seconds_at(16'000), 2);
    EXPECT_DOUBLE_EQ(side().seconds_at(48'000), 4);
    EXPECT_DOUBLE_EQ(side().seconds_from_begin(48'000), 4);
    EXPECT_DOUBLE_EQ(side().seconds_from_begin(-4000), -0.5);
    EXPECT_DOUBLE_EQ(side().seconds_with_pauses(), 4);
    EXPECT_EQ(side().sample_rate_at(15'999), 8000);
    EXPECT_EQ(side().sample_rate_at(16'000), 16000);
    EXPECT_EQ(side().first_sample_rate(), 8000);
}

TEST_F(RateChangeTest, EveryUsualRateIsFoundAfterEveryOther) {
    constexpr std::array<int, 9> FRAMES = {160, 240, 320, 441, 480, 640, 882, 960, 1920};
    for (const int before : FRAMES) {
        for (const int after : FRAMES) {
            if (before == after) {
                continue;
            }
            restart(0);
            number_ = 0;
            offset_ = 0;
            speak(75, before);
            speak(75, after);
            // The first full packets of a frame also fit a frame of the old length, so the change
            // is found after them.
            const int shared = std::min(before, after) / 661 * 661;
            EXPECT_EQ(rates(), std::to_string(before * 50) + " " + std::to_string(after * 50) +
                                   "@" + std::to_string(75 * before + shared));
        }
    }
}

TEST_F(RateChangeTest, ChangesBackAndForthAreFollowed) {
    speak(100, 160);
    speak(100, 320);
    speak(100, 160);
    EXPECT_EQ(rates(), "8000 16000@16000 8000@48000");
    EXPECT_DOUBLE_EQ(side().seconds_at(64'000), 6);
    EXPECT_EQ(side().rate_changes(), 2u);
}

TEST_F(RateChangeTest, ChangeInTheFirstSecondIsFound) {
    speak(20, 160);
    speak(100, 320);
    EXPECT_EQ(rates(), "8000 16000@3200");
}

TEST_F(RateChangeTest, ChangeShortlyBeforeTheEndIsFound) {
    speak(100, 160);
    speak(20, 320);
    EXPECT_EQ(rates(), "8000");
    call_->close(EndReason::TERMINATED);
    call_->report_end(EndReason::TERMINATED);
    EXPECT_EQ(rates(), "16000@16000");
}

TEST_F(RateChangeTest, OtherLengthOfFramesIsNoChange) {
    speak(100, 160);
    speak(100, 320, 40'000);
    speak(100, 240, 30'000);
    speak(100, 160);
    EXPECT_EQ(rates(), "8000");
    EXPECT_EQ(side().position(), 100u * (160 + 320 + 240 + 160));
}

TEST_F(RateChangeTest, SameLengthOfFramesCanHaveAnotherRate) {
    speak(100, 320, 20'000);
    diary_.take();
    speak(200, 320, 40'000);
    const std::string changes = rates();
    EXPECT_EQ(changes.substr(0, 5), "8000@");
    EXPECT_NEAR(std::stoi(changes.substr(5)), 100 * 320, 3 * 320);
    EXPECT_EQ(side().pauses(), 0u);
    speak(300, 320, 20'000);
    EXPECT_EQ(rates().substr(0, 6), "16000@");
}

TEST_F(RateChangeTest, FewOddPacketsChangeNothing) {
    speak(100, 160);
    for (const int odd : {320, 80, 1, 661, 240}) {
        speak(10, odd);
        speak(50, 160);
    }
    EXPECT_EQ(rates(), "8000");
    EXPECT_EQ(side().position(), offset_);
}

TEST_F(RateChangeTest, ForgedPacketsChangeNothing) {
    speak(100, 160);
    for (int i = 0; i < 20; ++i) {
        Packet forged = packet(number_ + 1 + static_cast<std::uint32_t>(i) % 3);
        forged.send_time = time_ + 20'000;
        forged.sample_offset = offset_;
        forged.sample_count = static_cast<std::uint16_t>(100 + i);
        receive(forged);
        speak(10, 160);
        pass(200ms);
    }
    call_->close(EndReason::TERMINATED);
    call_->report_end(EndReason::TERMINATED);
    EXPECT_EQ(rates(), "8000");
}

TEST_F(RateChangeTest, LostPacketsChangeNothing) {
    for (int i = 1; i <= 300; ++i) {
        speak(1, 960);
        if (i % 7 == 0) {
            time_ += 20'000;
            send(661);
            ++number_;  // The other part of the frame is lost.
            offset_ += 299;
        } else if (i % 11 == 0) {
            time_ += 20'000;
            ++number_;
            offset_ += 661;
            send(299);
        }
        pass(200ms);
    }
    call_->close(EndReason::TERMINATED);
    call_->report_end(EndReason::TERMINATED);
    EXPECT_EQ(rates(), "48000");
}

TEST_F(RateChangeTest, SenderThatCatchesUpIsNotFaster) {
    speak(100, 160);
    for (const std::int64_t frame_us : {0, 1'000, 5'000, 10'000, 14'000}) {
        time_ += 1'000'000;
        const auto behind = static_cast<int>(1'000'000 / (20'000 - frame_us));
        speak(behind, 160, frame_us);
        speak(200, 160);
    }
    EXPECT_EQ(rates(), "8000");
}

TEST_F(RateChangeTest, RateThatTheUserSetStays) {
    restart(8000);
    speak(100, 160);
    speak(100, 320);
    EXPECT_EQ(rates(), "8000");
}

TEST_F(RateChangeTest, AudioIsHeldNoLongerThanSecondsWhenNothingMoreComes) {
    speak(100, 160);
    speak(2, 320);
    EXPECT_EQ(side().position(), 16'000u);
    pass(5s);
    EXPECT_EQ(side().position(), 16'640u);
    EXPECT_EQ(rates(), "8000");
}

TEST_F(RateChangeTest, PausesAfterAChangeAreMeasuredAtTheNewRate) {
    speak(100, 160);
    speak(100, 320);
    diary_.take();
    time_ += 2'000'000;
    pass(2s);
    speak(100, 320);
    EXPECT_NE(diary_.take().find("pause32000@48000 "), std::string::npos);
    EXPECT_DOUBLE_EQ(side().seconds_with_pauses(), 8);
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

}  // namespace qv::node
