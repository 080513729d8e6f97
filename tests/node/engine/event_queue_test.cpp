#include "node/engine/event_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace qv::node {

namespace {

using Clock = EventQueue::Clock;

class EventQueueTest : public ::testing::Test {
  protected:
    // Returns the texts of the events that were dropped.
    std::string push(const std::string& call, const std::string& text) {
        std::string dropped;
        for (const auto& event :
             queue_.push(std::make_shared<const EngineEvent>(EngineEvent{call, "kind", text}))) {
            dropped += event->text;
        }
        return dropped;
    }

    // Returns the texts of all events that may be sent now.
    std::string send() {
        std::string sent;
        for (auto entry = queue_.next(now_); entry.number != 0; entry = queue_.next(now_)) {
            sent += entry.event->text;
            numbers_[entry.event->text.at(0)] = entry.number;
        }
        return sent;
    }

    void stored(char text) { EXPECT_NE(queue_.stored(numbers_[text]), nullptr); }

    EventQueue queue_{std::uint64_t{1} << 20};
    Clock::time_point now_ = Clock::now();
    std::map<char, std::uint64_t> numbers_;
};

TEST_F(EventQueueTest, OneEventOfEachCallIsUnderWay) {
    push("one", "a");
    push("one", "b");
    push("two", "c");
    EXPECT_EQ(send(), "ac");
    EXPECT_EQ(send(), "");
    stored('a');
    EXPECT_EQ(send(), "b");
    EXPECT_EQ(queue_.size(), 2U);
    EXPECT_EQ(queue_.under_way(), 2U);
}

TEST_F(EventQueueTest, RefusedEventIsSentAgainBeforeLaterOnesOfItsCall) {
    push("one", "a");
    push("one", "b");
    send();
    queue_.refused(numbers_['a'], now_ + std::chrono::seconds(1));
    EXPECT_FALSE(queue_.has_ready(now_));
    EXPECT_EQ(send(), "");
    now_ += std::chrono::seconds(1);
    EXPECT_TRUE(queue_.has_ready(now_));
    EXPECT_EQ(send(), "a");
}

TEST_F(EventQueueTest, OnlyEventsThatWereSentEarlyEnoughAreSentAgain) {
    push("one", "a");
    send();
    now_ += std::chrono::seconds(1);
    push("two", "b");
    send();
    EXPECT_EQ(queue_.send_again(now_), 1U);
    EXPECT_EQ(send(), "a");
}

TEST_F(EventQueueTest, AnswerForAnEventThatIsGoneIsIgnored) {
    push("one", "a");
    send();
    stored('a');
    EXPECT_EQ(queue_.stored(numbers_['a']), nullptr);
    queue_.refused(numbers_['a'], now_);
    EXPECT_FALSE(queue_.has_ready(now_));
    EXPECT_EQ(queue_.size(), 0U);
    EXPECT_EQ(queue_.bytes(), 0U);
}

TEST_F(EventQueueTest, EventThatCannotBeStoredCountsAsDropped) {
    push("one", "a");
    push("one", "b");
    send();
    EXPECT_NE(queue_.drop(numbers_['a']), nullptr);
    EXPECT_EQ(queue_.dropped(), 1U);
    EXPECT_EQ(send(), "b");
}

class FullEventQueueTest : public EventQueueTest {
  protected:
    // Room for three events with texts of one letter.
    FullEventQueueTest() { queue_ = EventQueue(3 * EngineEvent{"one", "kind", "a"}.size()); }
};

TEST_F(FullEventQueueTest, OldestEventIsDropped) {
    EXPECT_EQ(push("one", "a"), "");
    EXPECT_EQ(push("one", "b"), "");
    EXPECT_EQ(push("two", "c"), "");
    EXPECT_EQ(push("one", "d"), "a");
    EXPECT_EQ(push("one", "e"), "b");
    EXPECT_EQ(queue_.dropped(), 2U);
    EXPECT_EQ(send(), "cd");
}

TEST_F(FullEventQueueTest, EventUnderWayIsKept) {
    push("one", "a");
    send();
    push("one", "b");
    push("two", "c");
    EXPECT_EQ(push("two", "d"), "b");
    stored('a');
    EXPECT_EQ(send(), "c");
}

TEST_F(FullEventQueueTest, RefusedEventCanBeDropped) {
    push("one", "a");
    send();
    queue_.refused(numbers_['a'], now_);
    push("one", "b");
    push("one", "c");
    EXPECT_EQ(push("one", "d"), "a");
    EXPECT_EQ(send(), "b");
    EXPECT_EQ(send(), "");
}

}  // namespace

}  // namespace qv::node
