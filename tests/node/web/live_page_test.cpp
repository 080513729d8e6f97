#include "node/web/live_page.h"

#include <gtest/gtest.h>

#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace qv::node::web {

namespace {

using Json = nlohmann::json;

class LivePageTest : public testing::Test {
  protected:
    LivePageTest() { open(); }

    void open() {
        page_.emplace(board_, rows_, false,
                      [this](const ListenNotice& notice) { notices_.push_back(notice); });
    }

    std::shared_ptr<CallRecord> begin_call() {
        auto record = board_.add(Uuid{}, Micros{0}, now_);
        publish(*record, 1);
        return record;
    }

    static void publish(CallRecord& record, std::uint64_t packets, bool new_facts = true) {
        auto facts = std::make_shared<CallFacts>();
        facts->sides[0].begun = true;
        CallFigures figures;
        figures.sides[0].stats.packets = packets;
        figures.sides[0].measured = packets * 160;
        figures.sides[0].squares = static_cast<double>(packets) * 160 * 3276.8 * 3276.8;
        std::vector<Mark> marks;
        record.try_publish(figures, new_facts ? facts : nullptr, marks);
    }

    void finish(const CallRecord& record) {
        auto call = std::make_shared<FinishedCall>();
        call->id = record.id();
        call->facts = std::make_shared<CallFacts>();
        board_.finish(call);
    }

    void take(const std::string& message) { page_->take(message, now_); }

    // What the page gets after this time, of that type.
    std::vector<Json> after(Micros time, const std::string& type) {
        now_ += time;
        std::vector<Json> found;
        for (const LiveMessage& message : page_->due(now_)) {
            const Json json = message.binary ? Json() : Json::parse(message.bytes);
            if (!message.binary && json.at("type") == type) {
                found.push_back(json);
            }
        }
        return found;
    }

    CallBoard board_;
    FileFolder folder_{"/nonexistent"};
    LiveRows rows_{board_, folder_};
    std::vector<ListenNotice> notices_;
    Micros now_{1'000'000'000};
    std::optional<LivePage> page_;
};

TEST_F(LivePageTest, APageIsGreetedAndGetsAllCallsFirst) {
    const auto call = begin_call();
    const std::vector<LiveMessage> messages = page_->due(now_);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(Json::parse(messages[0].bytes).at("type"), "hello");
    const Json calls = Json::parse(messages[1].bytes);
    EXPECT_EQ(calls.at("reset"), true);
    EXPECT_EQ(calls.at("calls").at(0).at("id"), call->id());
    EXPECT_EQ(calls.at("finished"), Json::array());
}

TEST_F(LivePageTest, APageWhoseEndCannotBeReportedEndsNevertheless) {
    const auto call = begin_call();
    bool fails = false;
    page_.emplace(board_, rows_, false, [&fails](const ListenNotice&) {
        if (fails) {
            throw std::bad_alloc();
        }
    });
    take(R"({"type":"watch","calls":[1]})");
    take(R"({"type":"listen","call":1,"sides":"both"})");
    fails = true;
    page_.reset();
    EXPECT_FALSE(call->watched());
    CallRecord::Taps taps;
    ASSERT_TRUE(call->try_take_taps(taps));
    EXPECT_TRUE(taps[0].empty());
}

TEST_F(LivePageTest, ThenItGetsWhatChanges) {
    const auto first = begin_call();
    after(Micros{0}, "calls");
    EXPECT_TRUE(after(LiveRows::FRAME, "calls").empty());
    const auto second = begin_call();
    const auto calls = after(LiveRows::FRAME, "calls");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_FALSE(calls[0].contains("reset"));
    EXPECT_EQ(calls[0].at("calls").size(), 1U);
    EXPECT_EQ(calls[0].at("calls").at(0).at("id"), second->id());
    finish(*first);
    const auto ends = after(LiveRows::FRAME, "calls");
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_EQ(ends[0].at("removed"), Json::parse("[1]"));
    EXPECT_EQ(ends[0].at("finished").at(0).at("id"), first->id());
}

TEST_F(LivePageTest, FiguresOfCallsThatNobodyWatchesComeSeldom) {
    const auto call = begin_call();
    after(Micros{0}, "calls");
    publish(*call, 2, false);
    EXPECT_TRUE(after(Micros{500'000}, "calls").empty());
    EXPECT_EQ(after(Micros{1'500'000}, "calls").size(), 1U);
    take(R"({"type":"watch","calls":[1]})");
    publish(*call, 3, false);
    const auto calls = after(Micros{500'000}, "calls");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].at("calls").at(0).at("sides").at("originator").at("packets"), 3);
}

TEST_F(LivePageTest, LevelsOfWatchedCallsComeAtOnce) {
    const auto call = begin_call();
    begin_call();
    after(Micros{0}, "calls");
    EXPECT_TRUE(after(LiveRows::FRAME, "levels").empty());
    take(R"({"type":"watch","calls":[1,99]})");
    publish(*call, 5, false);
    const auto levels = after(LiveRows::FRAME, "levels");
    ASSERT_EQ(levels.size(), 1U);
    EXPECT_EQ(levels[0].at("rows"), Json::parse("[[1,-20,null,0]]"));
}

TEST_F(LivePageTest, APageHearsTheServerWhileThereAreNoCalls) {
    after(Micros{0}, "calls");
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(after(Micros{4'900'000}, "levels").empty());
        const auto levels = after(LiveRows::FRAME, "levels");
        ASSERT_EQ(levels.size(), 1U);
        EXPECT_EQ(levels[0].at("rows"), Json::array());
    }
}

TEST_F(LivePageTest, AnOpenedCallSendsItsWave) {
    const auto call = begin_call();
    after(Micros{0}, "calls");
    const WaveColumn column{0, 1};
    call->wave(Side::ORIGINATOR).add({&column, 1, 0});
    take(R"({"type":"open","call":1})");
    const auto detail = after(LiveRows::FRAME, "detail");
    ASSERT_EQ(detail.size(), 1U);
    EXPECT_EQ(detail[0].at("sides").at("originator").at("end"), 1);
    EXPECT_EQ(detail[0].at("sides").at("originator").at("columns"), "AAE=");
    EXPECT_EQ(detail[0].at("sides").at("terminator").at("columns"), "");
    EXPECT_TRUE(after(LiveRows::FRAME, "wave").empty());
    call->wave(Side::ORIGINATOR).add({&column, 1, 0});
    const auto wave = after(LiveRows::FRAME, "wave");
    ASSERT_EQ(wave.size(), 1U);
    EXPECT_EQ(wave[0].at("sides").at("originator").at("end"), 2);
    EXPECT_FALSE(wave[0].at("sides").contains("terminator"));
    take(R"({"type":"open","call":null})");
    call->wave(Side::ORIGINATOR).add({&column, 1, 0});
    EXPECT_TRUE(after(LiveRows::FRAME, "wave").empty());
}

TEST_F(LivePageTest, OnlyTheLast30SecondsOfAWaveAreSent) {
    const auto call = begin_call();
    call->wave(Side::ORIGINATOR).add({nullptr, 0, 5000});
    take(R"({"type":"open","call":1})");
    const auto detail = after(LiveRows::FRAME, "detail");
    ASSERT_EQ(detail.size(), 1U);
    EXPECT_EQ(detail[0].at("sides").at("originator").at("columns").get<std::string>().size(),
              1600U);  // 600 columns.
}

TEST_F(LivePageTest, ListeningIsNoticedFromItsBeginningToItsEnd) {
    const auto call = begin_call();
    take(R"({"type":"listen","call":1,"sides":"both"})");
    EXPECT_EQ(after(Micros{0}, "listening").size(), 1U);
    EXPECT_TRUE(after(Micros{25'000}, "listening").empty());
    ASSERT_EQ(notices_.size(), 1U);
    EXPECT_EQ(notices_[0].sides, "both");
    EXPECT_FALSE(notices_[0].seconds.has_value());
    now_ += Micros{2'000'000};
    take(R"({"type":"stop"})");
    EXPECT_EQ(after(Micros{0}, "stopped").at(0).at("reason"), "stopped");
    ASSERT_EQ(notices_.size(), 2U);
    EXPECT_NEAR(*notices_[1].seconds, 2.025, 0.001);
}

TEST_F(LivePageTest, OnlyAPageThatListensIsServedMoreOftenThanTenTimesASecond) {
    const auto call = begin_call();
    EXPECT_EQ(page_->interval(), Micros{100'000});
    take(R"({"type":"listen","call":1,"sides":"both"})");
    EXPECT_EQ(page_->interval(), Micros{25'000});
    take(R"({"type":"stop"})");
    EXPECT_EQ(page_->interval(), Micros{100'000});
}

TEST_F(LivePageTest, AnEndOfTheCallEndsTheListening) {
    const auto call = begin_call();
    take(R"({"type":"listen","call":1,"sides":"originator"})");
    call->set_over();
    EXPECT_EQ(after(Micros{0}, "stopped").at(0).at("reason"), "ended");
    EXPECT_EQ(notices_.size(), 2U);
}

TEST_F(LivePageTest, APageThatGoesListensAndWatchesNoMore) {
    const auto call = begin_call();
    take(R"({"type":"listen","call":1,"sides":"both"})");
    take(R"({"type":"watch","calls":[1]})");
    take(R"({"type":"open","call":1})");
    EXPECT_TRUE(call->watched());
    page_.reset();
    EXPECT_FALSE(call->watched());
    EXPECT_EQ(notices_.size(), 2U);
    CallRecord::Taps taps;
    ASSERT_TRUE(call->try_take_taps(taps));
    EXPECT_TRUE(taps[0].empty());
}

TEST_F(LivePageTest, OnlyOneCallIsOpenAndHeard) {
    const auto first = begin_call();
    const auto second = begin_call();
    take(R"({"type":"open","call":1})");
    take(R"({"type":"open","call":2})");
    EXPECT_FALSE(first->watched());
    take(R"({"type":"listen","call":1,"sides":"both"})");
    take(R"({"type":"listen","call":2,"sides":"both"})");
    EXPECT_EQ(notices_.size(), 3U);
}

TEST_F(LivePageTest, WrongMessagesAreAnswered) {
    take("x");
    EXPECT_EQ(after(Micros{0}, "error").size(), 1U);
    take(R"({"type":"listen","call":7,"sides":"both"})");
    EXPECT_EQ(after(Micros{0}, "stopped").at(0).at("call"), 7);
    EXPECT_TRUE(notices_.empty());
}

TEST_F(LivePageTest, AnswersDoNotWaitWithoutEndForAPageThatTakesNone) {
    for (std::size_t i = 0; i < LivePage::MOST_WAITING; ++i) {
        EXPECT_TRUE(page_->take("x", now_));
    }
    EXPECT_FALSE(page_->take("x", now_));
    EXPECT_EQ(after(Micros{0}, "error").size(), 100U);
    EXPECT_TRUE(page_->take("x", now_));
}

}  // namespace

}  // namespace qv::node::web
