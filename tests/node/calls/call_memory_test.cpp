#include "node/calls/call_memory.h"

#include <gtest/gtest.h>

namespace {

using namespace qv::node;
using namespace std::chrono_literals;

class CallMemoryTest : public testing::Test {
  protected:
    static Uuid call(unsigned char last_byte) {
        Uuid uuid{};
        uuid[15] = last_byte;
        return uuid;
    }

    void keep(unsigned char last_byte, int what) { memory_.keep(call(last_byte), what, now_); }

    // What is remembered of the call; 0 for nothing.
    int of(unsigned char last_byte) const {
        const int* const what = memory_.find(call(last_byte));
        return what != nullptr ? *what : 0;
    }

    void pass(Micros time) {
        now_ += time;
        memory_.forget_old(now_);
    }

    CallMemory<int> memory_{3, 10s};
    Micros now_{1'000'000};
};

TEST_F(CallMemoryTest, RemembersForItsTime) {
    keep(1, 11);
    pass(9s);
    EXPECT_EQ(of(1), 11);
    pass(1s);
    EXPECT_EQ(of(1), 0);
    EXPECT_EQ(memory_.size(), 0u);
}

TEST_F(CallMemoryTest, RemembersTheLatestCalls) {
    for (unsigned char number = 1; number <= 5; ++number) {
        keep(number, number);
    }
    pass(1s);
    EXPECT_EQ(of(2), 0);
    EXPECT_EQ(of(3), 3);
    EXPECT_EQ(memory_.size(), 3u);
}

TEST_F(CallMemoryTest, WhatIsKeptAgainStaysItsWholeTime) {
    keep(1, 11);
    pass(5s);
    keep(1, 12);
    pass(9s);
    EXPECT_EQ(of(1), 12);
    pass(1s);
    EXPECT_EQ(of(1), 0);
}

TEST_F(CallMemoryTest, ForgetsOnRequest) {
    keep(1, 11);
    keep(2, 22);
    memory_.forget(call(1));
    memory_.forget(call(3));
    EXPECT_EQ(of(1), 0);
    EXPECT_EQ(of(2), 22);
}

}  // namespace
