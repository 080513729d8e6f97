#include "node/calls/pause_map.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

// Two pauses: 50 samples at position 100, and 30 samples at position 200.
class PauseMapTest : public testing::Test {
  protected:
    PauseMapTest() {
        map_.add({50, 100});
        map_.add({30, 200});
    }

    PauseMap map_;
};

TEST_F(PauseMapTest, WithoutPausesPlacesArePositions) {
    EXPECT_EQ(PauseMap().place_of(7), 7u);
    EXPECT_EQ(PauseMap().position_at(7), 7);
    EXPECT_EQ(PauseMap().position_at(-7), -7);
}

TEST_F(PauseMapTest, PositionsMoveByThePausesBeforeThem) {
    EXPECT_EQ(map_.place_of(99), 99u);
    EXPECT_EQ(map_.place_of(100), 150u);
    EXPECT_EQ(map_.place_of(199), 249u);
    EXPECT_EQ(map_.place_of(200), 280u);
}

TEST_F(PauseMapTest, EndLiesBeforeThePauseAtItsPosition) {
    EXPECT_EQ(map_.place_of(100, true), 100u);
    EXPECT_EQ(map_.place_of(200, true), 250u);
    EXPECT_EQ(map_.place_of(201, true), 281u);
}

TEST_F(PauseMapTest, PlacesWithinAPauseHaveItsPosition) {
    for (const std::int64_t place : {100, 101, 149, 150}) {
        EXPECT_EQ(map_.position_at(place), 100) << place;
    }
    EXPECT_EQ(map_.position_at(99), 99);
    EXPECT_EQ(map_.position_at(151), 101);
    EXPECT_EQ(map_.position_at(265), 200);
    EXPECT_EQ(map_.position_at(281), 201);
}

TEST_F(PauseMapTest, ForgottenPausesStillCount) {
    PauseMap map;
    for (std::uint64_t pause = 1; pause <= PauseMap::MOST_PAUSES + 10; ++pause) {
        map.add({10, 100 * pause});
    }
    const std::uint64_t last = 100 * (PauseMap::MOST_PAUSES + 10);
    EXPECT_EQ(map.place_of(last), last + 10 * (PauseMap::MOST_PAUSES + 10));
    EXPECT_EQ(map.position_at(static_cast<std::int64_t>(map.place_of(last) + 5)),
              static_cast<std::int64_t>(last + 5));
    // Ten pauses are forgotten: a place before the remembered ones lies after all ten.
    EXPECT_EQ(map.position_at(1150), 1050);
}

}  // namespace

}  // namespace qv::node
