#include "node/web/call_feed.h"

#include <nlohmann/json.hpp>

#include "node/web/call_json.h"
#include "node/web/listening.h"
#include "tests/node/calls/node_call.h"

namespace qv::node::web {

namespace {

using Json = nlohmann::json;

class CallFeedTest : public tests::NodeCallTest {
  protected:
    CallFeedTest() { watch({&feed_}); }

    // The only call that goes on.
    std::shared_ptr<CallRecord> record() const {
        const CallBoard::Records records = board_.records();
        return records.size() == 1 ? records.front() : nullptr;
    }

    // A packet of the originator with that number, which counts from 1, in time. All its samples
    // have the value of its number.
    void send_packet(unsigned char number) {
        tests::Bytes datagram = tests::golden("call_2_read");
        datagram.resize(50);
        datagram[40] = number;
        const std::uint32_t offset = (number - 1U) * 160;
        datagram[44] = static_cast<unsigned char>(offset & 0xFF);
        datagram[45] = static_cast<unsigned char>(offset >> 8);
        datagram[48] = 160;
        datagram[49] = 0;
        for (int i = 0; i < 160; ++i) {
            datagram.push_back(0);
            datagram.push_back(number);  // 256 times the number.
        }
        send(datagram);
    }

    CallBoard board_;
    CallFeed feed_{board_, true};
};

TEST_F(CallFeedTest, ACallIsOnTheBoardUntilItEnds) {
    send("call_1_start");
    ASSERT_NE(record(), nullptr);
    EXPECT_EQ(record()->read().facts_version, 0U);
    pass(Micros{50'000});
    const CallRecord::Reading reading = record()->read();
    EXPECT_EQ(reading.facts_version, 1U);
    EXPECT_EQ(reading.facts->start->call_reference, "a84b4c76e66710@192.0.2.7");
    EXPECT_FALSE(reading.facts->sides[0].begun);
    const std::shared_ptr<CallRecord> kept = record();
    send("call_7_terminate");
    pass(Micros{1'000'000});
    EXPECT_EQ(record(), nullptr);
    EXPECT_TRUE(kept->over());
    EXPECT_EQ(board_.finished().calls.at(0)->reason, EndReason::TERMINATED);
}

TEST_F(CallFeedTest, FiguresAreHandedOverMoreOftenWhileSomebodyWatches) {
    send("call_1_start");
    pass(Micros{50'000});
    const std::uint64_t version = record()->version();
    send_packet(1);
    pass(Micros{50'000});  // The side is new.
    EXPECT_EQ(record()->version(), version + 1);
    send_packet(2);
    pass(Micros{50'000});
    EXPECT_EQ(record()->version(), version + 1);
    EXPECT_EQ(record()->read().figures.sides[0].stats.packets, 1U);
    record()->watch();
    pass(Micros{50'000});
    EXPECT_EQ(record()->read().figures.sides[0].stats.packets, 2U);
    record()->unwatch();
    send_packet(3);
    pass(Micros{50'000});
    EXPECT_EQ(record()->read().figures.sides[0].stats.packets, 2U);
    for (int tick = 0; tick < 19; ++tick) {
        pass(Micros{50'000});
    }
    EXPECT_EQ(record()->read().figures.sides[0].stats.packets, 3U);
}

TEST_F(CallFeedTest, TheWaveFollowsTheAudio) {
    for (unsigned char number = 1; number <= 5; ++number) {
        send_packet(number);
    }
    pass(Micros{50'000});
    const WaveRing& wave = record()->wave(Side::ORIGINATOR);
    EXPECT_EQ(wave.end(), 2U);
    EXPECT_EQ(wave.columns(0, 2), (std::string{0, 3, 0, 5}));
    EXPECT_EQ(record()->wave(Side::TERMINATOR).end(), 0U);
}

TEST_F(CallFeedTest, TheWaveIsHandedOverOnceASecondUnlessSomebodyWatches) {
    for (unsigned char number = 1; number <= 5; ++number) {
        send_packet(number);
    }
    pass(Micros{50'000});
    ASSERT_EQ(record()->wave(Side::ORIGINATOR).end(), 2U);
    for (unsigned char number = 6; number <= 10; ++number) {
        send_packet(number);
    }
    pass(Micros{50'000});
    EXPECT_EQ(record()->wave(Side::ORIGINATOR).end(), 2U);
    record()->watch();
    pass(Micros{50'000});
    EXPECT_EQ(record()->wave(Side::ORIGINATOR).columns(0, 4),
              (std::string{0, 3, 0, 5, 0, 8, 0, 10}));
}

TEST_F(CallFeedTest, TheWaveIsWholeHoweverSeldomTheCallHasItsTurn) {
    for (unsigned char number = 1; number <= 100; ++number) {
        send_packet(number);
    }
    pass(Micros{50'000});
    const WaveRing& wave = record()->wave(Side::ORIGINATOR);
    ASSERT_EQ(wave.end(), 40U);
    EXPECT_EQ(wave.columns(0, 2), (std::string{0, 3, 0, 5}));
    EXPECT_EQ(wave.columns(38, 40), (std::string{0, 98, 0, 100}));
}

TEST_F(CallFeedTest, LostAudioIsSilenceInTheWaveAndAMark) {
    send_packet(1);
    send_packet(5);
    pass(Micros{300'000});
    pass(Micros{50'000});
    const auto [marks, end] = record()->marks(0);
    ASSERT_EQ(marks.size(), 1U);
    EXPECT_EQ(Json::parse(mark_text(marks[0])),
              Json::parse(R"({"kind":"gap","call_side":"originator","begin":0.02,"end":0.08})"));
    EXPECT_EQ(record()->wave(Side::ORIGINATOR).columns(0, 2), (std::string{0, 1, 0, 5}));
}

TEST_F(CallFeedTest, AudioGoesToThoseWhoListen) {
    send_packet(1);
    Listening both(record(), {Side::ORIGINATOR, Side::TERMINATOR});
    Listening other(record(), {Side::TERMINATOR});
    send_packet(2);
    send_packet(3);
    send_packet(5);
    pass(Micros{300'000});
    const std::vector<std::string> frames = both.take_frames(now_);
    ASSERT_EQ(frames.size(), 2U);
    // Version, side, flags, rate, position, age, and the samples.
    EXPECT_EQ(frames[0].substr(0, 16), (std::string("\1\0\0\0\x40\x1f\0\0\xa0\0\0\0\0\0\0\0", 16)));
    EXPECT_EQ(frames[0].size(), 24U + 2 * 320);
    EXPECT_EQ(frames[0].substr(24, 2), (std::string{0, 2}));
    EXPECT_EQ(frames[0].substr(24 + 320, 2), (std::string{0, 3}));
    EXPECT_EQ(frames[1].substr(0, 16), (std::string("\1\0\1\0\x40\x1f\0\0\x80\2\0\0\0\0\0\0", 16)));
    EXPECT_TRUE(other.take_frames(now_).empty());
    EXPECT_TRUE(both.take_frames(now_).empty());
}

TEST_F(CallFeedTest, ListeningToACallThatHasGoneOnBeginsWithTheNextTick) {
    send_packet(1);
    pass(Micros{50'000});
    send_packet(2);
    Listening listening(record(), {Side::ORIGINATOR});
    send_packet(3);
    pass(Micros{50'000});
    send_packet(4);
    const std::vector<std::string> frames = listening.take_frames(now_);
    ASSERT_EQ(frames.size(), 1U);
    // The packets before are no loss, and the fourth has its place.
    EXPECT_EQ(frames[0].substr(0, 16), (std::string("\1\0\0\0\x40\x1f\0\0\xe0\1\0\0\0\0\0\0", 16)));
    EXPECT_EQ(frames[0].substr(24, 2), (std::string{0, 4}));
}

TEST_F(CallFeedTest, NothingIsCopiedWhenNobodyListensAnyMore) {
    send_packet(1);
    {
        Listening listening(record(), {Side::ORIGINATOR});
        send_packet(2);
        EXPECT_EQ(listening.take_frames(now_).size(), 1U);
    }
    CallRecord::Taps taps;
    ASSERT_TRUE(record()->try_take_taps(taps));
    EXPECT_TRUE(taps[0].empty());
    send_packet(3);
}

TEST_F(CallFeedTest, ManyCallsEndAndTheOldestAreForgotten) {
    for (std::size_t i = 0; i < CallBoard::MOST_FINISHED + 10; ++i) {
        auto call = std::make_shared<FinishedCall>();
        call->id = board_.add(Uuid{}, Micros{0}, Micros{0})->id();
        board_.finish(call);
    }
    const CallBoard::Finished finished = board_.finished();
    EXPECT_EQ(finished.calls.size(), CallBoard::MOST_FINISHED);
    EXPECT_EQ(finished.end, CallBoard::MOST_FINISHED + 10);
    EXPECT_EQ(finished.calls.front()->id, 11U);
    EXPECT_TRUE(board_.records().empty());
}

}  // namespace

}  // namespace qv::node::web
