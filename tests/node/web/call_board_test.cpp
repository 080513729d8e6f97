#include "node/web/call_board.h"

#include <gtest/gtest.h>

namespace qv::node::web {

namespace {

class CallBoardTest : public testing::Test {
  protected:
    std::shared_ptr<CallRecord> add() { return board_.add(Uuid{}, Micros{1}, Micros{2}); }
    void finish(std::uint64_t id) {
        auto call = std::make_shared<FinishedCall>();
        call->id = id;
        board_.finish(call);
    }

    CallBoard board_;
};

TEST_F(CallBoardTest, CallsAreNumberedFromOneAndFoundByTheirNumber) {
    const auto first = add();
    const auto second = add();
    EXPECT_EQ(first->id(), 1u);
    EXPECT_EQ(second->id(), 2u);
    EXPECT_EQ(board_.find(2), second);
    EXPECT_EQ(board_.find(3), nullptr);
    EXPECT_EQ(board_.records().size(), 2u);
}

TEST_F(CallBoardTest, ARecordHasTheTimesOfItsCall) {
    const Uuid uuid = {0x0f};
    const auto record = board_.add(uuid, Micros{10}, Micros{20});
    EXPECT_EQ(record->uuid(), uuid);
    EXPECT_EQ(record->began(), Micros{10});
    EXPECT_EQ(record->first_seen(), Micros{20});
}

TEST_F(CallBoardTest, ACallThatHasEndedIsFinishedAndNotFound) {
    const auto first = add();
    add();
    finish(1);
    EXPECT_EQ(board_.find(1), nullptr);
    EXPECT_EQ(board_.records().size(), 1u);
    EXPECT_EQ(board_.records().front()->id(), 2u);
    ASSERT_EQ(board_.finished().calls.size(), 1u);
    EXPECT_EQ(board_.finished().calls[0]->id, 1u);
    EXPECT_EQ(board_.finished_end(), 1u);
    EXPECT_EQ(first->id(), 1u);  // Whoever holds the record keeps it.
}

TEST_F(CallBoardTest, NumbersAreNotUsedAgain) {
    add();
    finish(1);
    EXPECT_EQ(add()->id(), 2u);
}

TEST_F(CallBoardTest, TheOldestFinishedCallsAreForgottenButCounted) {
    for (std::uint64_t id = 1; id <= CallBoard::MOST_FINISHED + 3; ++id) {
        add();
        finish(id);
    }
    const CallBoard::Finished finished = board_.finished();
    ASSERT_EQ(finished.calls.size(), CallBoard::MOST_FINISHED);
    EXPECT_EQ(finished.calls.front()->id, 4u);
    EXPECT_EQ(finished.calls.back()->id, CallBoard::MOST_FINISHED + 3);
    EXPECT_EQ(finished.end, CallBoard::MOST_FINISHED + 3);
    EXPECT_TRUE(board_.records().empty());
}

TEST_F(CallBoardTest, TheWishesOfEveryCallAreCounted) {
    const std::uint32_t before = board_.wishes();
    const auto first = add();
    const auto second = add();
    EXPECT_EQ(board_.wishes(), before);
    first->watch();
    EXPECT_NE(board_.wishes(), before);
    const std::uint32_t watched = board_.wishes();
    second->watch();
    EXPECT_NE(board_.wishes(), watched);
}

}  // namespace

}  // namespace qv::node::web
