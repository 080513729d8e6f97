#include "node/calls/call.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using media::features16_t;
using media::Packet;
using media::PacketType;

// Records what is reported, one word each.
class Diary : public CallListener {
  public:
    void started(const Call& call, const Packet&) override {
        add("start " + call.start()->call_reference);
    }
    void features_changed(const Call& call, const Packet& packet) override {
        add("features " + std::to_string(call.features().active) + " at " +
            std::to_string(call.side(Side::ORIGINATOR).position_at(packet.send_time)));
    }
    void terminated(const Call&, const Packet&) override { add("terminate"); }
    void terminate_refused(const Call&, const Packet& packet) override {
        add("refused " + std::to_string(packet.send_time));
    }
    void foreign(const Call&, const sockaddr_in& source) override {
        add("foreign " + std::to_string(ntohs(source.sin_port)));
    }
    void side_begun(const Call&, Side side) override { add(std::string("begun ") + name_of(side)); }
    void file_failed(const Call&, const FileReport& file) override { add("failed " + file.path); }
    void tick(const Call&, Micros) override { add("tick"); }
    void ended(const Call&, EndReason reason) override {
        add(std::string("end ") + name_of(reason));
    }

    // What was reported since the last call.
    std::string take() { return std::exchange(text_, {}); }

  private:
    void add(const std::string& words) { text_ += (text_.empty() ? "" : "; ") + words; }

    std::string text_;
};

// Calls with the same UUID and key, without a table.
class CallTest : public testing::Test {
  protected:
    std::unique_ptr<Call> make_call(const std::vector<CallListener*>& outputs) {
        return std::make_unique<Call>(UUID, KEY, Arrival{now_, {}}, limits_, outputs);
    }

    Packet packet(PacketType type) const {
        Packet made;
        made.type = type;
        made.call_key = KEY;
        made.call_uuid = UUID.data();
        made.send_time = sent_;
        return made;
    }
    Packet start_packet(std::int64_t configured_clock, features16_t features = {}) const {
        Packet made = packet(PacketType::START);
        made.call_reference = "ref";
        made.call_reference_length = 3;
        made.configured_clock = configured_clock;
        made.features = features;
        return made;
    }
    std::optional<Drop> start(std::int64_t configured_clock = 1, features16_t features = {}) {
        return receive(start_packet(configured_clock, features));
    }
    std::optional<Drop> control(features16_t update) {
        Packet made = packet(PacketType::CONTROL);
        made.features = update;
        return receive(made);
    }
    std::optional<Drop> terminate() { return receive(packet(PacketType::TERMINATE)); }
    // A packet of 160 samples.
    std::optional<Drop> data(std::uint32_t number) {
        static constexpr unsigned char SILENCE[320] = {};
        Packet made = packet(PacketType::DATA);
        made.sequence_number = number;
        made.sample_offset = 160 * (number - 1);
        made.sample_count = 160;
        made.audio = SILENCE;
        return receive(made);
    }
    std::optional<Drop> receive(const Packet& packet) {
        return call_->receive(packet, {now_, source_});
    }

    // Sends a packet of 20 ms at each of these times, in real time.
    void talk(std::uint32_t first, std::uint32_t last) {
        for (std::uint32_t number = first; number <= last; ++number) {
            data(number);
            pass(20ms);
        }
    }
    void pass(Micros time) {
        now_ += time;
        sent_ += time.count();
    }
    static sockaddr_in sender(const char* address, std::uint16_t port) {
        sockaddr_in made{};
        made.sin_addr.s_addr = inet_addr(address);
        made.sin_port = htons(port);
        return made;
    }
    std::optional<Drop> terminate_at(std::int64_t send_time) {
        Packet made = packet(PacketType::TERMINATE);
        made.send_time = send_time;
        return receive(made);
    }

    static constexpr Uuid UUID = {1, 2, 3};
    static constexpr std::uint64_t KEY = 7;

    CallLimits limits_;
    Micros now_{1'000'000};
    std::int64_t sent_ = 50'000'000;
    sockaddr_in source_{};
    Diary diary_;
    std::unique_ptr<Call> call_ = make_call({&diary_});
};

TEST_F(CallTest, StartPacketGivesTheCallItsFields) {
    EXPECT_FALSE(call_->start().has_value());
    EXPECT_EQ(start(), std::nullopt);
    EXPECT_EQ(diary_.take(), "start ref");
    EXPECT_EQ(call_->start()->configured_clock, 1);
    EXPECT_FALSE(call_->started_late());
}

TEST_F(CallTest, SenderIsThatOfTheLatestPacket) {
    call_ = std::make_unique<Call>(UUID, KEY, Arrival{now_, sender("192.0.2.7", 5060)}, limits_,
                                   std::vector<CallListener*>{});
    EXPECT_EQ(call_->source().sin_addr.s_addr, inet_addr("192.0.2.7"));
    EXPECT_EQ(call_->source().sin_port, htons(5060));
    source_ = sender("192.0.2.7", 5061);  // The module was loaded again.
    EXPECT_EQ(data(1), std::nullopt);
    EXPECT_EQ(call_->source().sin_port, htons(5061));
}

TEST_F(CallTest, PacketsFromAnotherAddressAreDropped) {
    start();
    data(1);
    diary_.take();
    source_ = sender("192.0.2.66", 40001);
    now_ += 1min;
    EXPECT_EQ(data(2), Drop::OTHER_ADDRESS);
    EXPECT_EQ(control({0xC0, 0x40}), Drop::OTHER_ADDRESS);
    EXPECT_EQ(terminate(), Drop::OTHER_ADDRESS);
    EXPECT_EQ(diary_.take(), "foreign 40001; foreign 40001; foreign 40001");
    EXPECT_EQ(call_->foreign_packets(), 3u);
    EXPECT_FALSE(call_->ending());
    EXPECT_EQ(call_->last_seen(), 1s);
    EXPECT_EQ(call_->source().sin_addr.s_addr, 0u);
}

TEST_F(CallTest, AnyAddressMaySendWhereThatIsAllowed) {
    limits_.any_source = true;
    data(1);
    source_ = sender("192.0.2.66", 40001);
    EXPECT_EQ(data(2), std::nullopt);
    EXPECT_EQ(call_->source().sin_port, htons(40001));
}

TEST_F(CallTest, TerminateThatClaimsToBeSentFarAheadEndsNothing) {
    start();
    talk(1, 150);
    diary_.take();
    terminate_at(std::int64_t{1} << 62);
    EXPECT_EQ(diary_.take(), "refused 4611686018427387904");
    EXPECT_FALSE(call_->ending());
    EXPECT_EQ(data(151), std::nullopt);
    EXPECT_EQ(terminate(), std::nullopt);
    EXPECT_TRUE(call_->ending());
    EXPECT_EQ(call_->terminate_time(), sent_);
}

TEST_F(CallTest, TerminateThatIsFarAheadDoesNotEndACallThatBeginsWithAControlPacket) {
    control({0xC0, 0x40});
    diary_.take();
    terminate_at(std::int64_t{1} << 62);
    EXPECT_FALSE(call_->ending());
    talk(1, 30);
    EXPECT_EQ(diary_.take(), "begun originator; refused 4611686018427387904");
    call_->tick(now_ + 10s);
    EXPECT_FALSE(call_->ending());
}

TEST_F(CallTest, EarlyInACallDataRefutesATerminateThatIsFarAhead) {
    start();
    talk(1, 10);
    diary_.take();
    terminate_at(sent_ + 3600'000'000);
    EXPECT_EQ(diary_.take(), "");
    talk(11, 30);
    EXPECT_EQ(diary_.take(), "refused 3650200000");
    call_->tick(now_ + 10s);
    EXPECT_FALSE(call_->ending());
}

TEST_F(CallTest, TerminateAfterAPauseOfASenderThatIsFasterThanRealTimeIsAccepted) {
    start();
    data(1);
    diary_.take();
    terminate_at(sent_ + 300'000'000);
    call_->tick(now_ + 999ms);
    EXPECT_FALSE(call_->ending());
    call_->tick(now_ + 1s);
    EXPECT_EQ(diary_.take(), "tick; terminate; tick");
    EXPECT_TRUE(call_->ending());
    EXPECT_TRUE(call_->ended_implausibly());
    EXPECT_EQ(call_->terminate_time(), sent_ + 1'000'000) << "not what the packet claims";
}

TEST_F(CallTest, ImplausibleTerminateIsRefusedWhenAnotherComesOrTheCallEnds) {
    start();
    data(1);
    diary_.take();
    terminate_at(sent_ + 300'000'000);
    terminate_at(sent_ + 400'000'000);
    EXPECT_EQ(diary_.take(), "refused 450000000");
    call_->close(EndReason::SHUTDOWN);
    call_->report_end(EndReason::SHUTDOWN);
    EXPECT_EQ(diary_.take(), "refused 350000000; end shutdown");
}

TEST_F(CallTest, TerminateAfterAHoldIsAcceptedAtOnce) {
    start();
    talk(1, 150);
    pass(1min);
    terminate();
    EXPECT_TRUE(call_->ending());
    EXPECT_FALSE(call_->ended_implausibly());
}

TEST_F(CallTest, ControlPacketThatClaimsToBeSentFarAheadDoesNotMakeLaterOnesOld) {
    start(1, {0xCC, 0x0C});
    data(1);
    sent_ += 3600'000'000;
    control({0xC0, 0x40});
    sent_ -= 3600'000'000;
    pass(1s);
    EXPECT_EQ(control({0xC0, 0x80}), std::nullopt);
    EXPECT_EQ(call_->features().active, 0x8C);
}

TEST_F(CallTest, PacketWithAnotherKeyIsDroppedAndDoesNotKeepTheCallAlive) {
    Packet forged = packet(PacketType::TERMINATE);
    forged.call_key = 8;
    now_ += 1min;
    EXPECT_EQ(receive(forged), Drop::OTHER_CALL_KEY);
    EXPECT_FALSE(call_->ending());
    EXPECT_EQ(call_->last_seen(), 1s);
    EXPECT_EQ(diary_.take(), "");
}

TEST_F(CallTest, SameStartAgainIsDroppedAndAnotherStartReplacesTheCall) {
    start(1);
    EXPECT_FALSE(call_->is_replaced_by(start_packet(1), {}));
    EXPECT_EQ(start(1), Drop::REPEATED_START);
    EXPECT_TRUE(call_->is_replaced_by(start_packet(2), {}));
    Packet forged = start_packet(2);
    forged.call_key = 8;
    EXPECT_FALSE(call_->is_replaced_by(forged, {}));
    EXPECT_FALSE(call_->is_replaced_by(start_packet(2), {now_, sender("192.0.2.66", 40001)}));
}

TEST_F(CallTest, StartThatOthersOvertookIsLateAndKeepsTheFeaturesOfTheControlPacket) {
    control({0xC0, 0xC0});
    start(1, {0x0C, 0x0C});
    EXPECT_TRUE(call_->started_late());
    EXPECT_EQ(call_->features().active, 0xC0);
}

TEST_F(CallTest, ControlPacketsChangeTheFeaturesInTheOrderOfSending) {
    start(1, {0xCC, 0x0C});
    diary_.take();
    sent_ += 2000;
    EXPECT_EQ(control({0xC0, 0x40}), std::nullopt);
    sent_ -= 1000;
    EXPECT_EQ(control({0x0C, 0x00}), Drop::OLD_CONTROL);
    EXPECT_EQ(diary_.take(), "features 76 at 0");
    EXPECT_EQ(call_->control_packets(), 1u);
}

TEST_F(CallTest, FeaturesChangeAtThePositionOfTheControlPacket) {
    start();
    data(1);
    sent_ += 20'000;
    data(2);
    diary_.take();
    control({0xC0, 0x40});
    EXPECT_EQ(diary_.take(), "features 64 at 320");
}

TEST_F(CallTest, EndIsDueAfterTheTerminatePacketAndItsLinger) {
    EXPECT_EQ(terminate(), std::nullopt);
    EXPECT_TRUE(call_->ending());
    EXPECT_EQ(call_->due(now_ + 299ms), std::nullopt);
    EXPECT_EQ(call_->due(now_ + 300ms), EndReason::TERMINATED);
    EXPECT_EQ(terminate(), Drop::AFTER_END);
}

TEST_F(CallTest, SilentCallTimesOutAndALongOneBecomesTooOld) {
    EXPECT_EQ(call_->due(now_ + limits_.idle - 1us), std::nullopt);
    EXPECT_EQ(call_->due(now_ + limits_.idle), EndReason::TIMED_OUT);
    now_ += limits_.max_age;
    start();
    EXPECT_EQ(call_->due(now_), EndReason::TOO_OLD);
}

TEST_F(CallTest, EndIsReportedAfterEverythingElse) {
    data(1);
    call_->close(EndReason::SHUTDOWN);
    call_->report_end(EndReason::SHUTDOWN);
    EXPECT_EQ(diary_.take(), "begun originator; end shutdown");
}

TEST_F(CallTest, TickReachesEveryListener) {
    call_->tick(now_);
    EXPECT_EQ(diary_.take(), "tick");
}

TEST_F(CallTest, FailedFileOfOneOutputIsReportedToAll) {
    call_->report_failed_file({"x.wav", "No space left on device"});
    EXPECT_EQ(diary_.take(), "failed x.wav");
    ASSERT_EQ(call_->failed_files().size(), 1u);
    EXPECT_EQ(call_->failed_files()[0].error, "No space left on device");
}

TEST_F(CallTest, LaterCallGoesOnWhereTheSidesWereLeft) {
    data(1);
    data(2);
    const SidePlaces places = call_->places();
    ASSERT_TRUE(places[0].has_value());
    EXPECT_EQ(places[0]->sequence_number, 3u);
    EXPECT_EQ(places[0]->sample_offset, 320u);
    EXPECT_FALSE(places[1].has_value());

    call_ = make_call({&diary_});
    call_->continue_from(places);
    data(3);
    EXPECT_EQ(call_->side(Side::ORIGINATOR).joined_at(), 320u);
    EXPECT_EQ(call_->side(Side::ORIGINATOR).position(), 160u);
}

// An output that keeps a record for each call.
class Library : public CallListener {
  public:
    std::unique_ptr<CallListener> begin_call(Call&) override {
        auto diary = std::make_unique<Diary>();
        latest = diary.get();
        return diary;
    }
    void started(const Call&, const Packet&) override {
        ADD_FAILURE() << "told in place of its call's diary";
    }

    Diary* latest = nullptr;  // Owned by its call.
};

TEST_F(CallTest, WhatAnOutputKeepsForACallIsCalledInPlaceOfTheOutput) {
    Library library;
    const auto other = make_call({&library});
    call_ = make_call({&library});
    Diary* const diary = library.latest;
    start();
    EXPECT_EQ(diary->take(), "start ref");
}

TEST_F(CallTest, ListenersAreCalledInTheOrderOfTheOutputs) {
    struct Writer : CallListener {
        explicit Writer(std::string& text, char name) : text_(text), name_(name) {}
        void started(const Call&, const Packet&) override { text_ += name_; }
        std::string& text_;
        char name_;
    };
    std::string text;
    Writer a(text, 'a');
    Writer b(text, 'b');
    call_ = make_call({&b, &diary_, &a});
    start();
    EXPECT_EQ(text, "ba");
}

TEST_F(CallTest, AListenerThatHearsAgainHasItsPlaceInTheOrder) {
    struct Hearer : CallListener {
        explicit Hearer(std::string& text, char name) : text_(text), name_(name) {}
        void data(const Call&, const Packet&) override { text_ += name_; }
        void audio(const Call&, Side, const Audio&) override { text_ += name_; }
        std::string& text_;
        char name_;
    };
    std::string text;
    Hearer a(text, 'a');
    Hearer b(text, 'b');
    Hearer c(text, 'c');
    call_ = make_call({&a, &b, &c});
    data(1);
    EXPECT_EQ(std::exchange(text, ""), "abcabc");
    call_->set_hearing(b, false);
    data(2);
    EXPECT_EQ(std::exchange(text, ""), "acac");
    call_->set_hearing(b, true);
    call_->set_hearing(b, true);
    data(3);
    EXPECT_EQ(text, "abcabc");
}

}  // namespace

}  // namespace qv::node
