#include "node/web/live_rows.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace qv::node::web {

namespace {

using Json = nlohmann::json;

// A tenth of full scale: -20 dB.
constexpr double TENTH = 3276.8;

class LiveRowsTest : public testing::Test {
  protected:
    std::shared_ptr<CallRecord> begin_call() { return board_.add(Uuid{}, Micros{0}, now_); }

    // Hands over so many more samples of that amplitude for the originator.
    void hear(CallRecord& record, std::uint64_t samples, double amplitude) {
        figures_.sides[0].measured += samples;
        figures_.sides[0].squares += static_cast<double>(samples) * amplitude * amplitude;
        ++figures_.sides[0].stats.packets;
        publish(record, nullptr);
    }
    void publish_facts(CallRecord& record, std::uint64_t control_packets = 0) {
        auto facts = std::make_shared<CallFacts>();
        facts->sides[0].begun = true;
        facts->control_packets = control_packets;
        publish(record, facts);
    }
    void publish(CallRecord& record, const std::shared_ptr<const CallFacts>& facts) {
        std::vector<Mark> marks;
        ASSERT_TRUE(record.try_publish(figures_, facts, marks));
    }

    void finish(std::uint64_t id) {
        auto call = std::make_shared<FinishedCall>();
        call->id = id;
        call->facts = std::make_shared<CallFacts>();
        board_.finish(call);
    }

    std::shared_ptr<const LiveFrame> frame_after(Micros time) {
        now_ += time;
        return rows_.frame(now_);
    }
    static Json json_of(const LiveRow& row) { return Json::parse(*row.text); }

    CallBoard board_;
    FileFolder folder_{"/nonexistent"};
    LiveRows rows_{board_, folder_};
    CallFigures figures_;
    Micros now_{1'000'000'000};
};

TEST_F(LiveRowsTest, AllPagesGetTheSameFrame) {
    begin_call();
    const auto frame = frame_after(Micros{0});
    EXPECT_EQ(frame_after(Micros{99'999}), frame);
    EXPECT_NE(frame_after(Micros{1}), frame);
}

TEST_F(LiveRowsTest, ACallIsShownFromItsFirstFactsOn) {
    const auto call = begin_call();
    EXPECT_TRUE(frame_after(Micros{0})->rows.empty());
    publish_facts(*call);
    const auto frame = frame_after(LiveRows::FRAME);
    ASSERT_EQ(frame->rows.size(), 1u);
    EXPECT_EQ(frame->rows[0].id, 1u);
    EXPECT_EQ(json_of(frame->rows[0]).at("id"), 1);
}

TEST_F(LiveRowsTest, RowsComeInTheOrderOfTheCallsAndGoWithThem) {
    for (int i = 0; i < 4; ++i) {
        publish_facts(*begin_call());
    }
    EXPECT_EQ(frame_after(Micros{0})->rows.size(), 4u);
    finish(1);
    finish(3);
    publish_facts(*begin_call());
    const auto frame = frame_after(LiveRows::FRAME);
    ASSERT_EQ(frame->rows.size(), 3u);
    EXPECT_EQ(frame->rows[0].id, 2u);
    EXPECT_EQ(frame->rows[1].id, 4u);
    EXPECT_EQ(frame->rows[2].id, 5u);
    finish(5);
    EXPECT_EQ(frame_after(LiveRows::FRAME)->rows.size(), 2u);
}

TEST_F(LiveRowsTest, TheLevelIsThatOfTheAudioSinceTheFrameBefore) {
    const auto call = begin_call();
    publish_facts(*call);
    hear(*call, 160, 32768);
    EXPECT_NEAR(frame_after(Micros{0})->rows[0].level_db[0].value(), 0, 0.001);
    hear(*call, 320, TENTH);
    EXPECT_NEAR(frame_after(LiveRows::FRAME)->rows[0].level_db[0].value(), -20, 0.001);
    EXPECT_EQ(frame_after(LiveRows::FRAME)->rows[0].level_db[1], std::nullopt);
}

TEST_F(LiveRowsTest, FiguresAloneChangeTheTextOfAnUnwatchedCallEveryTwoSeconds) {
    const auto call = begin_call();
    publish_facts(*call);
    EXPECT_EQ(frame_after(Micros{0})->rows[0].version, 1u);
    hear(*call, 160, TENTH);
    EXPECT_EQ(frame_after(Micros{1'999'999})->rows[0].version, 1u);
    const auto frame = frame_after(LiveRows::FRAME);
    EXPECT_EQ(frame->rows[0].version, 2u);
    EXPECT_EQ(json_of(frame->rows[0]).at("sides").at("originator").at("packets"), 1);
}

TEST_F(LiveRowsTest, AndThatOfAWatchedCallEveryHalfSecond) {
    const auto call = begin_call();
    call->watch();
    publish_facts(*call);
    frame_after(Micros{0});
    hear(*call, 160, TENTH);
    EXPECT_EQ(frame_after(Micros{499'999})->rows[0].version, 1u);
    EXPECT_EQ(frame_after(LiveRows::FRAME)->rows[0].version, 2u);
}

TEST_F(LiveRowsTest, NewFactsChangeTheTextAtOnce) {
    const auto call = begin_call();
    publish_facts(*call);
    frame_after(Micros{0});
    publish_facts(*call, 5);
    const auto frame = frame_after(LiveRows::FRAME);
    EXPECT_EQ(frame->rows[0].version, 2u);
    EXPECT_EQ(json_of(frame->rows[0]).at("control_packets"), 5);
}

TEST_F(LiveRowsTest, TheTextOfACallWithoutNewsIsNotMadeAgain) {
    publish_facts(*begin_call());
    const auto text = frame_after(Micros{0})->rows[0].text;
    EXPECT_EQ(frame_after(Micros{60'000'000})->rows[0].text, text);
}

TEST_F(LiveRowsTest, FinishedCallsAreListedFromTheNewestOn) {
    for (std::uint64_t id = 1; id <= 3; ++id) {
        publish_facts(*begin_call());
    }
    finish(2);
    const auto first = frame_after(Micros{0});
    ASSERT_EQ(first->finished.size(), 1u);
    finish(1);
    finish(3);
    const auto frame = frame_after(LiveRows::FRAME);
    ASSERT_EQ(frame->finished.size(), 3u);
    EXPECT_EQ(Json::parse(*frame->finished[0]).at("id"), 3);
    EXPECT_EQ(Json::parse(*frame->finished[1]).at("id"), 1);
    EXPECT_EQ(frame->finished[2], first->finished[0]);  // Not made again.
    EXPECT_EQ(frame->finished_end, 3u);
}

TEST_F(LiveRowsTest, FinishedCallsThatTheBoardForgetsAreNotListed) {
    const auto finish_many = [this](std::uint64_t count) {
        for (std::uint64_t i = 0; i < count; ++i) {
            finish(begin_call()->id());
        }
    };
    finish_many(CallBoard::MOST_FINISHED - 1);
    frame_after(Micros{0});
    finish_many(3);
    const auto frame = frame_after(LiveRows::FRAME);
    ASSERT_EQ(frame->finished.size(), CallBoard::MOST_FINISHED);
    EXPECT_EQ(Json::parse(*frame->finished.front()).at("id"), CallBoard::MOST_FINISHED + 2);
    EXPECT_EQ(Json::parse(*frame->finished.back()).at("id"), 3);
    finish_many(CallBoard::MOST_FINISHED + 1);
    EXPECT_EQ(frame_after(LiveRows::FRAME)->finished.size(), CallBoard::MOST_FINISHED);
}

}  // namespace

}  // namespace qv::node::web
