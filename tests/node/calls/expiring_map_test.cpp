#include "node/calls/expiring_map.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

using namespace std::chrono_literals;

class ExpiringMapTest : public testing::Test {
  protected:
    static Uuid call(unsigned char last_byte) {
        Uuid uuid{};
        uuid[15] = last_byte;
        return uuid;
    }

    void keep(unsigned char last_byte, int what) { map_.keep(call(last_byte), what, now_); }

    // The value that is remembered for the call, or 0.
    int of(unsigned char last_byte) const {
        const int* const what = map_.find(call(last_byte));
        return what != nullptr ? *what : 0;
    }

    void pass(Micros time) {
        now_ += time;
        map_.expire(now_);
    }

    ExpiringMap<int> map_{3, 10s};
    Micros now_{1'000'000};
};

TEST_F(ExpiringMapTest, RemembersForItsTime) {
    keep(1, 11);
    pass(9s);
    EXPECT_EQ(of(1), 11);
    pass(1s);
    EXPECT_EQ(of(1), 0);
    EXPECT_EQ(map_.size(), 0u);
}

TEST_F(ExpiringMapTest, RemembersTheLatestCalls) {
    for (unsigned char number = 1; number <= 5; ++number) {
        keep(number, number);
    }
    pass(1s);
    EXPECT_EQ(of(2), 0);
    EXPECT_EQ(of(3), 3);
    EXPECT_EQ(map_.size(), 3u);
}

TEST_F(ExpiringMapTest, WhatIsKeptAgainStaysItsWholeTime) {
    keep(1, 11);
    pass(5s);
    keep(1, 12);
    pass(9s);
    EXPECT_EQ(of(1), 12);
    pass(1s);
    EXPECT_EQ(of(1), 0);
}

TEST_F(ExpiringMapTest, ErasesOnRequest) {
    keep(1, 11);
    keep(2, 22);
    map_.erase(call(1));
    map_.erase(call(3));
    EXPECT_EQ(of(1), 0);
    EXPECT_EQ(of(2), 22);
}

}  // namespace

}  // namespace qv::node
