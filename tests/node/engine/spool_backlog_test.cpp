#include "node/engine/spool_backlog.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace qv::node {

namespace {

using Clock = SpoolBacklog::Clock;
using Ids = std::vector<std::string>;

SpoolBacklog::Event event(std::uint64_t number, const std::string& id) {
    return std::make_shared<const EngineEvent>(EngineEvent{"call", "kind", "{}", id, number});
}

class SpoolBacklogTest : public ::testing::Test {
  protected:
    Ids next() const {
        Ids ids;
        for (const auto& each : backlog_.next(now_)) {
            ids.push_back(each->id);
        }
        return ids;
    }

    SpoolBacklog backlog_;
    const SpoolBacklog::Event first_ = event(1, "run-1");
    const SpoolBacklog::Event second_ = event(2, "run-2");
    Clock::time_point now_ = Clock::now();
};

TEST_F(SpoolBacklogTest, EventsAreWrittenOnceAndInOrder) {
    backlog_.add(second_);
    backlog_.add(first_);
    EXPECT_TRUE(backlog_.has_ready(now_));
    EXPECT_EQ(next(), (Ids{"run-1", "run-2"}));
    EXPECT_EQ(backlog_.size(), 2U);
    backlog_.written({first_, second_});
    EXPECT_EQ(next(), Ids{});
    EXPECT_EQ(backlog_.size(), 0U);
    EXPECT_FALSE(backlog_.has_ready(now_));
}

TEST_F(SpoolBacklogTest, EventThatIsForgottenBeforeItWasWrittenIsNeverWritten) {
    backlog_.add(first_);
    backlog_.add(second_);
    backlog_.forget(first_);
    EXPECT_EQ(next(), (Ids{"run-2"}));
    EXPECT_EQ(backlog_.take_forgotten(), Ids{});
}

TEST_F(SpoolBacklogTest, WrittenEventIsReleasedOnce) {
    backlog_.add(first_);
    backlog_.written({first_});
    backlog_.forget(first_);
    EXPECT_EQ(backlog_.take_forgotten(), (Ids{"run-1"}));
    EXPECT_EQ(backlog_.take_forgotten(), Ids{});
}

TEST_F(SpoolBacklogTest, EventThatIsForgottenWhileItIsWrittenIsReleasedAfterwards) {
    backlog_.add(first_);
    const auto writing = backlog_.next(now_);
    backlog_.forget(first_);
    EXPECT_EQ(backlog_.take_forgotten(), Ids{});
    backlog_.written(writing);
    EXPECT_EQ(backlog_.take_forgotten(), (Ids{"run-1"}));
}

TEST_F(SpoolBacklogTest, EventOfAnEarlierRunIsReleasedAndNoOtherOne) {
    backlog_.add(first_);
    backlog_.forget(event(0, "earlier-1"));
    EXPECT_EQ(backlog_.take_forgotten(), (Ids{"earlier-1"}));
    EXPECT_EQ(next(), (Ids{"run-1"}));
}

TEST_F(SpoolBacklogTest, AfterARefusalOfTheDiskEventsWait) {
    backlog_.add(first_);
    backlog_.refused(now_);
    EXPECT_EQ(next(), Ids{});
    EXPECT_FALSE(backlog_.has_ready(now_));
    EXPECT_EQ(backlog_.size(), 1U);
    now_ += SpoolBacklog::RETRY;
    EXPECT_EQ(next(), (Ids{"run-1"}));
}

TEST_F(SpoolBacklogTest, LastAttemptDoesNotWait) {
    backlog_.add(first_);
    backlog_.refused(now_);
    backlog_.retry_at_once();
    EXPECT_EQ(next(), (Ids{"run-1"}));
}

TEST_F(SpoolBacklogTest, WritesAreBounded) {
    for (std::uint64_t number = 1; number <= SpoolBacklog::AT_ONCE + 1; ++number) {
        backlog_.add(event(number, std::to_string(number)));
    }
    EXPECT_EQ(next().size(), SpoolBacklog::AT_ONCE);
}

}  // namespace

}  // namespace qv::node
