#include "node/calls/call_table.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "node/audio/file_names.h"
#include "node/audio/recorder.h"
#include "node/report/text.h"
#include "tests/node/audio/fake_audio_files.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using media::Packet;
using media::PacketType;
using tests::FakeAudioStore;

// Records what is reported, one word each.
class TableDiary : public CallListener {
  public:
    void started(const Call& call, const Packet&) override {
        add(call.started_late() ? "late-start" : "start");
    }
    void features_changed(const Call&, const Packet&) override { add("control"); }
    void terminated(const Call&, const Packet&) override { add("terminate"); }
    void gap(const Call&, Side, const Gap& gap) override {
        add("gap" + std::to_string(gap.lost_packets));
    }
    void pause(const Call&, Side, const Pause& pause) override {
        add("pause" + std::to_string(pause.samples) + "@" + std::to_string(pause.position));
    }
    void late(const Call&, Side, const Packet&) override { add("late"); }
    void file_failed(const Call&, const FileReport& file) override { add("failed:" + file.error); }
    void ended(const Call& call, EndReason reason) override {
        add(std::string("end:") + name_of(reason));
        last_rates = {call.side(Side::ORIGINATOR).sample_rate(),
                      call.side(Side::TERMINATOR).sample_rate()};
    }

    std::string text;
    std::pair<int, int> last_rates;  // Of the call that ended last.

  private:
    void add(const std::string& word) { text += (text.empty() ? "" : " ") + word; }
};

class CallTableTest : public testing::Test {
  protected:
    CallTableTest() { restart({}); }

    void restart(const CallLimits& limits) { restart(limits, {&file_names_, &recorder_, &diary_}); }

    void restart(const CallLimits& limits, const std::vector<CallListener*>& outputs) {
        table_ = std::make_unique<CallTable>(limits, outputs);
    }

    void receive(const Packet& packet) { table_->receive(packet, {now_, source_}); }

    Packet packet(PacketType type) {
        Packet made;
        made.type = type;
        made.call_key = key_;
        made.call_uuid = uuid_.data();
        made.send_time = sent_.count();
        return made;
    }

    void start(std::int64_t configured_clock = 1) {
        Packet made = packet(PacketType::START);
        static constexpr unsigned char NOWHERE[4] = {};
        made.report_node_address = NOWHERE;
        made.call_reference = "";
        made.configured_clock = configured_clock;
        receive(made);
    }

    void data(std::uint32_t number, Side side = Side::ORIGINATOR) {
        Packet made = packet(PacketType::DATA);
        made.leg_word = side == Side::ORIGINATOR ? 0x0000 : 0x8001;
        data(number, made);
    }

    void data(std::uint32_t number, Packet made) {
        static constexpr unsigned char AUDIO[320] = {1, 0, 1, 0};
        made.sequence_number = number;
        made.sample_offset = (number - 1) * 160;
        made.sample_count = 160;
        made.audio = AUDIO;
        receive(made);
    }

    // In real time, 20 ms per packet.
    void talk(std::uint32_t first, std::uint32_t last, Side side = Side::ORIGINATOR) {
        for (std::uint32_t number = first; number <= last; ++number) {
            data(number, side);
            pass(20ms);
        }
    }

    void control() { receive(packet(PacketType::CONTROL)); }
    void terminate() { receive(packet(PacketType::TERMINATE)); }

    void pass(Micros time) {
        now_ += time;
        sent_ += time;
        table_->tick(now_);
    }

    std::uint64_t dropped(Drop reason) const {
        return table_->totals().dropped[static_cast<std::size_t>(reason)];
    }

    // Of the originator's file of the first or a later part of the call.
    const tests::FakeFile& file(int part) const {
        const std::string number = part == 1 ? "" : "-" + std::to_string(part);
        return store_.files.at(uuid_text(uuid_) + number + "-originator.wav");
    }

    void use_uuid(unsigned char last_byte) { uuid_[15] = last_byte; }

    FakeAudioStore store_;
    FileNames file_names_{store_, {}, [] { return 0; }, [] {}};
    Recorder recorder_{store_, {true, false, {4, false}}};
    TableDiary diary_;
    std::unique_ptr<CallTable> table_;
    Uuid uuid_{};
    std::uint64_t key_ = 7;
    Micros now_{1'000'000};
    Micros sent_{50'000'000};
    sockaddr_in source_{};
};

TEST_F(CallTableTest, CallRunsFromStartToTerminate) {
    start();
    talk(1, 3);
    control();
    terminate();
    pass(1s);
    EXPECT_EQ(diary_.text, "start control terminate end:terminated");
    EXPECT_EQ(table_->size(), 0u);
    EXPECT_EQ(store_.files.size(), 1u);
}

TEST_F(CallTableTest, PacketsOvertakenByTerminateAreStillTaken) {
    start();
    terminate();
    data(1);
    pass(299ms);
    EXPECT_EQ(table_->size(), 1u);
    pass(1ms);
    EXPECT_EQ(store_.files.begin()->second.samples.size(), 160u);
}

TEST_F(CallTableTest, DataBeforeStartMakesALateStart) {
    data(1);
    start();
    data(2);
    EXPECT_EQ(diary_.text, "late-start");
    EXPECT_EQ(table_->totals().calls_begun, 1u);
}

TEST_F(CallTableTest, CallWithoutStartIsRecordedAndCounted) {
    data(1);
    terminate();
    pass(1s);
    EXPECT_EQ(diary_.text, "terminate end:terminated");
    EXPECT_EQ(table_->totals().calls_without_start, 1u);
    EXPECT_EQ(store_.files.size(), 1u);
}

TEST_F(CallTableTest, TerminateThatNeverComesIsATimeout) {
    start();
    data(1);
    pass(119s);
    EXPECT_EQ(table_->size(), 1u);
    pass(1s);
    EXPECT_EQ(diary_.text, "start end:timed_out");
    EXPECT_EQ(table_->totals().calls_not_terminated, 1u);
}

TEST_F(CallTableTest, CallThatWasOnHoldBeyondTheTimeoutGoesOnInAFileOfItsOwn) {
    start();
    talk(1, 60);
    pass(1h);
    talk(61, 100);
    terminate();
    pass(1s);
    EXPECT_EQ(diary_.text, "start end:timed_out terminate end:terminated");
    ASSERT_EQ(store_.files.size(), 2u);
    EXPECT_EQ(file(1).samples.size(), 60u * 160);
    EXPECT_EQ(file(2).samples.size(), 40u * 160);
    EXPECT_EQ(file(2).sample_rate, 8000);
    EXPECT_EQ(dropped(Drop::AFTER_END), 0u);
}

TEST_F(CallTableTest, LossAtTheBeginningOfAContinuationIsReported) {
    start();
    talk(1, 60);
    pass(1h);
    talk(63, 64);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start end:timed_out gap2 end:shutdown");
}

TEST_F(CallTableTest, EachSideGoesOnWhereItWasLeft) {
    start();
    talk(1, 60);
    talk(1, 20, Side::TERMINATOR);
    pass(1h);
    talk(61, 62);
    talk(21, 22, Side::TERMINATOR);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start pause9600@0 end:timed_out end:shutdown");
}

TEST_F(CallTableTest, SideThatIsSilentInAContinuationGoesOnInTheNext) {
    start();
    talk(1, 20);
    pass(1h);
    data(1, Side::TERMINATOR);
    pass(1h);
    talk(22, 23);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start end:timed_out end:timed_out gap1 end:shutdown");
}

TEST_F(CallTableTest, WhatWaitedAtTheEndIsNotMissedByTheContinuation) {
    CallLimits limits;
    limits.max_age = 1s;
    restart(limits);
    start();
    talk(1, 48);
    talk(50, 60);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start gap1 end:too_old end:shutdown");
}

TEST_F(CallTableTest, CallThatStartsAnewAfterATimeoutIsNoContinuation) {
    start(1);
    talk(1, 60);
    pass(1h);
    start(2);
    talk(2, 3);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start end:timed_out start gap1 end:shutdown");
}

TEST_F(CallTableTest, DataThatOvertakesAStartAfterATimeoutIsNoContinuation) {
    start(1);
    talk(1, 60);
    pass(1h);
    data(1);
    start(2);
    talk(2, 3);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start end:timed_out late-start end:shutdown");
    EXPECT_EQ(file(2).samples.size(), 3u * 160);
}

TEST_F(CallTableTest, CallThatIsTooOldGoesOnInAFileOfItsOwn) {
    CallLimits limits;
    limits.max_age = 1s;
    restart(limits);
    start();
    talk(1, 90);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start end:too_old end:shutdown");
    ASSERT_EQ(store_.files.size(), 2u);
    EXPECT_EQ(file(2).samples.size(), 40u * 160);
}

TEST_F(CallTableTest, OldCallsAreEndedThoughPacketsCome) {
    CallLimits limits;
    limits.max_age = 1s;
    restart(limits);
    start();
    talk(1, 60);
    EXPECT_EQ(diary_.text, "start end:too_old");
}

TEST_F(CallTableTest, StragglersDoNotBringACallBack) {
    start();
    data(1);
    terminate();
    const Micros ended = sent_;
    pass(1s);
    sent_ = ended;
    data(2);
    sent_ += 1ms;  // A feature was switched while the call ended.
    control();
    terminate();
    EXPECT_EQ(table_->size(), 0u);
    EXPECT_EQ(dropped(Drop::AFTER_END), 3u);
}

TEST_F(CallTableTest, OfTwoControlPacketsTheOneSentLaterHolds) {
    start();
    pass(1s);
    control();
    control();  // A copy.
    sent_ -= 500ms;
    control();  // Sent before the first one.
    EXPECT_EQ(diary_.text, "start control");
    EXPECT_EQ(dropped(Drop::OLD_CONTROL), 2u);
}

TEST_F(CallTableTest, SecondTerminateIsDroppedAndDoesNotPutTheEndOff) {
    start();
    terminate();
    pass(299ms);
    terminate();
    pass(1ms);
    EXPECT_EQ(diary_.text, "start terminate end:terminated");
    EXPECT_EQ(dropped(Drop::AFTER_END), 1u);
}

TEST_F(CallTableTest, StrangerTakesNoCallOverThatHasEnded) {
    start();
    talk(1, 60);
    pass(1h);  // The call has timed out. It may be on hold.
    source_.sin_addr.s_addr = 1;
    data(61);
    start(2);
    EXPECT_EQ(dropped(Drop::OTHER_ADDRESS), 2u);
    source_.sin_addr.s_addr = 0;
    talk(61, 62);
    terminate();
    pass(1s);
    source_.sin_addr.s_addr = 1;
    data(63);
    EXPECT_EQ(dropped(Drop::OTHER_ADDRESS), 3u);
    EXPECT_EQ(diary_.text, "start end:timed_out terminate end:terminated");
}

TEST_F(CallTableTest, StrangerDoesNotStartACallAnew) {
    start();
    source_.sin_addr.s_addr = 1;
    start(2);
    EXPECT_EQ(diary_.text, "start");
    EXPECT_EQ(dropped(Drop::OTHER_ADDRESS), 1u);
}

TEST_F(CallTableTest, DataGoesOnAfterATerminateThatClaimsToBeSentFarAhead) {
    start();
    talk(1, 150);
    Packet forged = packet(PacketType::TERMINATE);
    forged.send_time = std::int64_t{1} << 62;
    receive(forged);
    talk(151, 250);
    terminate();
    pass(1s);
    EXPECT_EQ(diary_.text, "start terminate end:terminated");
    EXPECT_EQ(dropped(Drop::FAR_AHEAD), 1u);
    EXPECT_EQ(dropped(Drop::AFTER_END), 0u);
    EXPECT_EQ(file(1).samples.size(), 250u * 160);
}

TEST_F(CallTableTest, CallThatWasEndedByAnImplausibleTerminateGoesOnWithoutLoss) {
    start();
    talk(1, 10);
    Packet forged = packet(PacketType::TERMINATE);
    forged.send_time = std::int64_t{1} << 62;
    receive(forged);
    pass(1s);
    pass(1s);
    talk(11, 60);  // The call was on hold.
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start terminate end:terminated end:shutdown");
    EXPECT_EQ(file(2).samples.size(), 50u * 160);
}

TEST_F(CallTableTest, EndedCallMayStartAgain) {
    start(1);
    data(1);
    terminate();
    pass(1s);
    start(2);
    data(1);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start terminate end:terminated start end:shutdown");
    EXPECT_EQ(store_.files.size(), 2u);
}

TEST_F(CallTableTest, DataMayOvertakeTheStartOfAnEndedCallThatBeginsAgain) {
    start(1);
    talk(1, 3);
    terminate();
    pass(600ms);
    data(1);
    data(2);
    start(2);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start terminate end:terminated late-start end:shutdown");
    EXPECT_EQ(dropped(Drop::AFTER_END), 0u);
    EXPECT_EQ(file(2).samples.size(), 2u * 160);
}

TEST_F(CallTableTest, RepeatedStartIsDropped) {
    start(1);
    start(1);
    EXPECT_EQ(dropped(Drop::REPEATED_START), 1u);
    EXPECT_EQ(diary_.text, "start");
}

TEST_F(CallTableTest, AnotherStartOfTheSameCallReplacesIt) {
    start(1);
    data(1);
    start(2);
    data(1);
    EXPECT_EQ(diary_.text, "start end:replaced start");
    EXPECT_EQ(table_->totals().calls_ended, 1u);
    EXPECT_EQ(dropped(Drop::DUPLICATE), 0u);
}

TEST_F(CallTableTest, OtherCallKeyIsDropped) {
    start();
    key_ = 8;
    data(1);
    terminate();
    EXPECT_EQ(dropped(Drop::OTHER_CALL_KEY), 2u);
    EXPECT_EQ(diary_.text, "start");
}

TEST_F(CallTableTest, SideStaysWithItsLeg) {
    start();
    data(1);
    Packet other_leg = packet(PacketType::DATA);
    other_leg.leg_word = 0x8000;
    data(2, other_leg);
    EXPECT_EQ(dropped(Drop::OTHER_LEG), 1u);
}

TEST_F(CallTableTest, CallsBeyondTheLimitAreDroppedAndCounted) {
    CallLimits limits;
    limits.max_calls = 2;
    restart(limits);
    for (unsigned char call = 0; call < 5; ++call) {
        use_uuid(call);
        start();
    }
    EXPECT_EQ(table_->size(), 2u);
    EXPECT_EQ(dropped(Drop::TOO_MANY_CALLS), 3u);
}

// An output whose files wait for a disk that stands still.
struct SlowFiles : CallListener {
    bool completing(const Call& /*call*/) const override { return waiting; }
    bool waiting = true;
};

TEST_F(CallTableTest, CallIsSummedUpWhenItsFilesAreCompleteAndEndsAfterThat) {
    struct Steps : SlowFiles {
        void closing(const Call& /*call*/, EndReason /*reason*/) override { steps += "closing "; }
        void summing_up(const Call& /*call*/, EndReason /*reason*/) override {
            steps += "summing up ";
            waiting = true;
        }
        void ended(const Call& /*call*/, EndReason /*reason*/) override { steps += "ended"; }
        std::string steps;
    } output;
    restart({}, {&output});
    start();
    terminate();
    pass(1s);
    EXPECT_EQ(output.steps, "closing ");
    output.waiting = false;
    pass(50ms);
    EXPECT_EQ(output.steps, "closing summing up ");
    pass(50ms);
    EXPECT_EQ(output.steps, "closing summing up ");
    output.waiting = false;
    pass(50ms);
    EXPECT_EQ(output.steps, "closing summing up ended");
}

TEST_F(CallTableTest, CallsWhoseFilesAreNotCompleteCountForTheLimit) {
    SlowFiles files;
    CallLimits limits;
    limits.max_calls = 1;
    restart(limits, {&files});
    start();
    terminate();
    pass(1s);
    EXPECT_EQ(table_->size(), 0u);
    use_uuid(1);
    start();
    EXPECT_EQ(table_->size(), 0u);
    EXPECT_EQ(dropped(Drop::TOO_MANY_CALLS), 1u);
    files.waiting = false;
    pass(50ms);
    start();
    EXPECT_EQ(table_->size(), 1u);
}

TEST_F(CallTableTest, AMillionCallKeysStayWithinTheLimits) {
    CallLimits limits;
    limits.max_calls = 1000;
    restart(limits);
    for (std::uint32_t call = 0; call < 1'000'000; ++call) {
        media::put_u32(uuid_.data(), call);
        key_ = call;
        data(1);
        if (call % 1000 == 999) {
            pass(1s);
        }
    }
    EXPECT_LE(table_->size(), 1000u);
    EXPECT_EQ(table_->totals().calls_begun + dropped(Drop::TOO_MANY_CALLS), 1'000'000u);
    // A thousand calls more, each time after the earlier ones have timed out (120 s).
    EXPECT_LE(store_.files.size(), (1000u / 120 + 1) * 1000);
}

TEST_F(CallTableTest, ManyCallsWithOneUuidAreOneCall) {
    for (key_ = 0; key_ < 1000; ++key_) {
        data(1);
    }
    EXPECT_EQ(table_->size(), 1u);
    EXPECT_EQ(dropped(Drop::OTHER_CALL_KEY), 999u);
}

TEST_F(CallTableTest, RateIsFoundFromOffsetsAndTimes) {
    start();
    talk(1, 40);
    table_->shut_down();
    EXPECT_EQ(store_.files.begin()->second.sample_rate, 8000);
}

TEST_F(CallTableTest, RateIsDecidedAtTheEndThoughNoFileAsksForIt) {
    restart({}, {&diary_});
    start();
    talk(1, 10);  // Too short to be sure before the end.
    table_->shut_down();
    EXPECT_EQ(diary_.last_rates, std::make_pair(8000, 0)) << "the other side has said nothing";
}

TEST_F(CallTableTest, RateOfTheOptionsHolds) {
    CallLimits limits;
    limits.sample_rate = 48000;
    restart(limits);
    talk(1, 40);
    table_->shut_down();
    EXPECT_EQ(store_.files.begin()->second.sample_rate, 48000);
}

TEST_F(CallTableTest, LossIsFilledAndReported) {
    talk(1, 2);
    talk(4, 20);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "gap1 end:shutdown");
    EXPECT_EQ(store_.files.begin()->second.samples.size(), 20u * 160);
    EXPECT_EQ(table_->totals().silence_samples, 160u);
}

TEST_F(CallTableTest, PauseOfTheSenderIsReported) {
    talk(1, 60);
    pass(1s);
    talk(61, 72);
    EXPECT_EQ(diary_.text, "pause8000@9600");
}

TEST_F(CallTableTest, SideThatBeginsLaterIsPlacedInTime) {
    talk(1, 60);
    talk(1, 12, Side::TERMINATOR);
    EXPECT_EQ(diary_.text, "pause9600@0");
}

TEST_F(CallTableTest, ReceiverThatComesLateBeginsWithTheFirstPacket) {
    talk(1'000'000, 1'000'001);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "end:shutdown");
    EXPECT_EQ(store_.files.begin()->second.samples.size(), 320u);
}

TEST_F(CallTableTest, FullDiskIsReportedOnceAndOtherCallsGoOn) {
    store_.error = "No space left on device";
    talk(1, 40);
    store_.error.clear();
    use_uuid(9);
    talk(1, 40);
    table_->shut_down();
    EXPECT_EQ(diary_.text, "failed:No space left on device end:shutdown end:shutdown");
    EXPECT_EQ(table_->totals().file_errors, 1u);
}

TEST_F(CallTableTest, EachFileThatFailsIsReportedOnceWhenItFails) {
    CallLimits limits;
    limits.sample_rate = 8000;
    restart(limits);
    const std::string stem = uuid_text(uuid_);
    store_.errors[stem + "-terminator.wav"] = "File too large";
    talk(1, 2, Side::TERMINATOR);
    EXPECT_EQ(diary_.text, "failed:File too large");
    talk(3, 4, Side::TERMINATOR);
    talk(1, 2);
    store_.errors[stem + "-originator.wav"] = "No space left on device";
    talk(3, 15);  // Files are asked four times a second.
    EXPECT_EQ(diary_.text, "failed:File too large failed:No space left on device");
    table_->shut_down();
    EXPECT_EQ(diary_.text, "failed:File too large failed:No space left on device end:shutdown");
    EXPECT_EQ(table_->totals().file_errors, 2u);
}

// Fails to write a file of its own at the end of each call.
class FailingWriter : public CallListener {
  public:
    std::unique_ptr<CallListener> begin_call(Call& call) override {
        return std::make_unique<File>(*this, call);
    }

    std::size_t failed = 0;

  private:
    class File : public CallListener {
      public:
        File(FailingWriter& writer, Call& call) : writer_(writer), call_(call) {}
        void ended(const Call& call, EndReason) override {
            call_.report_failed_file({"call.svg", "File too large"});
            writer_.failed = call.failed_files().size();
        }

      private:
        FailingWriter& writer_;
        Call& call_;
    };
};

TEST_F(CallTableTest, FileOfAnOutputThatFailsIsReportedAndCountedLikeOthers) {
    FailingWriter writer;
    restart({}, {&writer, &diary_});
    start();
    table_->shut_down();
    EXPECT_EQ(diary_.text, "start failed:File too large end:shutdown");
    EXPECT_EQ(table_->totals().file_errors, 1u);
    EXPECT_EQ(writer.failed, 1u);
}

// Every field is random; the identity is kept in most packets. Nothing may crash, hang or fill up.
TEST_F(CallTableTest, RandomPacketsAreSurvived) {
    CallLimits limits;
    limits.max_calls = 50;
    limits.max_silence_s = 1;
    restart(limits);
    std::mt19937_64 random(4711);
    static constexpr unsigned char AUDIO[1322] = {};
    for (int i = 0; i < 50'000; ++i) {
        uuid_[0] = static_cast<unsigned char>(random() % 60);
        key_ = random() % 20 == 0 ? random() : uuid_[0];
        sent_ = Micros(static_cast<std::int64_t>(random() >> (random() % 64)));
        constexpr PacketType TYPES[] = {PacketType::START, PacketType::TERMINATE,
                                        PacketType::CONTROL};
        Packet made = packet(random() % 50 == 0 ? TYPES[random() % 3] : PacketType::DATA);
        made.leg_word = static_cast<std::uint16_t>(random());
        made.report_node_address = AUDIO;
        made.call_reference = "";
        made.configured_clock = static_cast<std::int64_t>(random() % 3);
        made.sequence_number = static_cast<std::uint32_t>(random() >> (32 + random() % 32));
        made.sample_offset = static_cast<std::uint32_t>(random() >> (32 + random() % 32));
        made.sample_count = static_cast<std::uint16_t>(random() % 662);
        made.audio = AUDIO;
        now_ += Micros(random() % 1000);
        receive(made);
        if (i % 100 == 0) {
            table_->tick(now_);
        }
    }
    table_->shut_down();
    EXPECT_EQ(table_->totals().calls_begun, table_->totals().calls_ended);
    EXPECT_EQ(table_->totals().all_packets(), 50'000u);
}

}  // namespace

}  // namespace qv::node
