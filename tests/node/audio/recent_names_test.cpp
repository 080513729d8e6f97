#include "node/audio/recent_names.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node {

namespace {

std::string name(int number) {
    return "call-" + std::to_string(number) + ".wav";
}

TEST(RecentNamesTest, NameIsKnownUntilItIsForgotten) {
    RecentNames names;
    EXPECT_FALSE(names.has("a.wav"));
    names.add("a.wav");
    names.add("b.wav");
    EXPECT_TRUE(names.has("a.wav"));
    EXPECT_FALSE(names.has("c.wav"));
    names.forget("a.wav");
    names.forget("c.wav");
    EXPECT_FALSE(names.has("a.wav"));
    EXPECT_TRUE(names.has("b.wav"));
}

TEST(RecentNamesTest, OldestMakesRoom) {
    RecentNames names(8);
    for (int number = 1; number <= 8; ++number) {
        names.add(name(number));
    }
    names.add(name(1));  // Again, so that it is the newest.
    names.add(name(9));
    for (const int number : {1, 3, 4, 5, 6, 7, 8, 9}) {
        EXPECT_TRUE(names.has(name(number))) << number;
    }
    EXPECT_FALSE(names.has(name(2)));
}

TEST(RecentNamesTest, NameThatIsForgottenMakesRoom) {
    RecentNames names(8);
    for (int number = 1; number <= 8; ++number) {
        names.add(name(number));
    }
    names.forget(name(5));
    names.add(name(9));
    EXPECT_TRUE(names.has(name(1)));
    EXPECT_TRUE(names.has(name(9)));
    names.add(name(10));
    EXPECT_FALSE(names.has(name(1)));
}

TEST(RecentNamesTest, ManyNamesAreKnown) {
    RecentNames names(1 << 16);
    constexpr int HALF = 1 << 15;
    for (int number = 0; number < 10 * HALF; ++number) {
        names.add(name(number));
    }
    int known = 0;
    for (int number = 9 * HALF; number < 10 * HALF; ++number) {
        known += names.has(name(number)) ? 1 : 0;
    }
    EXPECT_GT(known, HALF * 95 / 100);
    for (int number = 10 * HALF; number < 11 * HALF; ++number) {
        ASSERT_FALSE(names.has(name(number)));
    }
}

}  // namespace

}  // namespace qv::node
