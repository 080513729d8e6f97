#include "node/calls/call_directory.h"

#include <gtest/gtest.h>

#include <memory>

#include "node/calls/call_table.h"
#include "tests/support/golden.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using tests::Bytes;
using tests::golden;

// Two call tables of one program, as two threads have them.
class CallDirectoryTest : public testing::Test {
  protected:
    void restart(const CallLimits& limits) {
        one_.reset();
        other_.reset();
        limits_ = limits;
        directory_ = std::make_shared<CallDirectory>(limits_);
        one_ = std::make_unique<CallTable>(limits_, none_, directory_);
        other_ = std::make_unique<CallTable>(limits_, none_, directory_);
    }
    CallDirectoryTest() { restart({}); }

    // With the last byte of the UUID and the first byte of the key, which leads to a table.
    void receive(CallTable& table, const std::string& name, unsigned char uuid = 1,
                 unsigned char key = 1) {
        Bytes datagram = golden(name);
        datagram[8] = key;
        datagram[31] = uuid;
        media::Packet packet;
        ASSERT_EQ(media::decode_packet(datagram.data(), datagram.size(), packet),
                  media::DecodeResult::OK);
        table.receive(packet, {now_, {}});
    }
    void pass(Micros time) {
        now_ += time;
        one_->tick(now_);
        other_->tick(now_);
    }

    const std::vector<CallListener*> none_;
    CallLimits limits_;
    std::shared_ptr<CallDirectory> directory_;
    std::unique_ptr<CallTable> one_;
    std::unique_ptr<CallTable> other_;
    Micros now_{100s};
};

TEST_F(CallDirectoryTest, LimitOfCallsIsThatOfAllTables) {
    CallLimits limits;
    limits.max_calls = 2;
    restart(limits);
    receive(*one_, "call_1_start", 1);
    receive(*other_, "call_1_start", 2, 2);
    receive(*one_, "call_1_start", 3);
    EXPECT_EQ(one_->size(), 1u);
    EXPECT_EQ(one_->totals().dropped_for(Drop::TOO_MANY_CALLS), 1u);
    receive(*other_, "call_7_terminate", 2, 2);
    pass(1s);
    receive(*one_, "call_1_start", 3);
    EXPECT_EQ(one_->size(), 2u);
}

TEST_F(CallDirectoryTest, CallOfOneTableIsNoCallOfAnother) {
    receive(*one_, "call_1_start");
    receive(*other_, "call_1_start", 1, 2);
    receive(*other_, "call_2_read", 1, 2);
    EXPECT_EQ(other_->size(), 0u);
    EXPECT_EQ(other_->totals().dropped_for(Drop::OTHER_CALL_KEY), 2u);
}

TEST_F(CallDirectoryTest, EndOfACallIsRememberedForAllTables) {
    receive(*one_, "call_1_start");
    receive(*one_, "call_7_terminate");
    pass(1s);
    receive(*other_, "call_2_read", 1, 2);
    EXPECT_EQ(other_->totals().dropped_for(Drop::AFTER_END), 1u);
    receive(*other_, "call_1_start", 1, 2);
    EXPECT_EQ(other_->size(), 1u);
}

TEST_F(CallDirectoryTest, CallThatTimedOutGoesOnInAnotherTableWhereItWas) {
    receive(*one_, "call_1_start");
    receive(*one_, "call_2_read");
    pass(200s);
    EXPECT_EQ(one_->size(), 0u);
    receive(*other_, "call_4_read", 1, 2);
    EXPECT_EQ(other_->size(), 1u);
    pass(200s);
    EXPECT_EQ(other_->totals().gaps, 0u);
    EXPECT_EQ(other_->totals().calls_without_start, 1u);
}

}  // namespace

}  // namespace qv::node
