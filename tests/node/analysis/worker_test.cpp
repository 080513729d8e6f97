#include "node/analysis/worker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "tests/node/analysis/sounds.h"

namespace qv::node::analysis {

namespace {

using tests::babble;
using tests::Sound;

constexpr int RATE = 8000;
constexpr Wanted ACTIVITY{true, false};
constexpr Wanted NOTHING{};

class WorkerTest : public testing::Test {
  protected:
    static std::vector<std::int16_t> samples_of(const Sound& sound) {
        std::vector<std::int16_t> samples;
        for (const float each : sound) {
            samples.push_back(static_cast<std::int16_t>(32767 * each));
        }
        return samples;
    }

    bool speak(std::uint64_t side, double seconds, std::uint64_t position,
               Wanted wanted = ACTIVITY) {
        const std::vector<std::int16_t> samples = samples_of(babble(seconds, 1));
        return worker_.add(side, RATE, wanted, position, samples.data(), samples.size());
    }

    // Returns everything detected in the audio so far.
    std::vector<Noticed> noticed() {
        worker_.drain();
        return worker_.take();
    }

    Worker worker_{{{}, nullptr, 30'000}};
};

TEST_F(WorkerTest, ActivityIsNoticedAtThePositionOfItsAudio) {
    ASSERT_TRUE(speak(7, 1, 800'000));
    worker_.finish(7);
    const std::vector<Noticed> all = noticed();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].kind, Noticed::Kind::ACTIVE);
    EXPECT_EQ(all[0].side, 7u);
    EXPECT_NEAR(static_cast<double>(all[0].position), 800'000, 400);
    EXPECT_EQ(all[1].kind, Noticed::Kind::INACTIVE);
    EXPECT_NEAR(static_cast<double>(all[1].position), 808'000, 400);
    EXPECT_EQ(all[2].kind, Noticed::Kind::FINISHED);
}

TEST_F(WorkerTest, SidesAreHeardApart) {
    ASSERT_TRUE(speak(1, 1, 0));
    ASSERT_TRUE(speak(2, 1, 0, NOTHING));
    ASSERT_TRUE(speak(3, 1, 0));
    std::vector<std::uint64_t> sides;
    for (const Noticed& each : noticed()) {
        sides.push_back(each.side);
    }
    EXPECT_EQ(sides, (std::vector<std::uint64_t>{1, 3}));
}

TEST_F(WorkerTest, AudioThatIsMissingEndsActivity) {
    ASSERT_TRUE(speak(1, 1, 0));
    ASSERT_TRUE(speak(1, 1, 8 * RATE));
    const std::vector<Noticed> all = noticed();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_NEAR(static_cast<double>(all[1].position), 1 * RATE, 400);
    EXPECT_NEAR(static_cast<double>(all[2].position), 8 * RATE, 400);
}

TEST_F(WorkerTest, SwitchingOffEndsActivityAtThatPosition) {
    ASSERT_TRUE(speak(1, 1, 0));
    ASSERT_TRUE(worker_.add(1, RATE, NOTHING, RATE, nullptr, 0));
    ASSERT_TRUE(speak(1, 1, RATE, NOTHING));
    const std::vector<Noticed> all = noticed();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[1].kind, Noticed::Kind::INACTIVE);
    EXPECT_LE(all[1].position, RATE);
}

TEST_F(WorkerTest, WhatDoesNotFitIsRefusedAndEndsAreNot) {
    EXPECT_TRUE(speak(1, 3, 0));
    EXPECT_FALSE(speak(1, 3, 24'000));
    worker_.finish(1);
    EXPECT_EQ(noticed().back().kind, Noticed::Kind::FINISHED);
    EXPECT_TRUE(speak(1, 3, 48'000));
}

TEST_F(WorkerTest, TenThousandSidesComeAndGo) {
    const std::vector<std::int16_t> frame(160, 1000);
    std::size_t finished = 0;
    for (std::uint64_t side = 1; side <= 10'000; ++side) {
        while (!worker_.add(side, RATE, ACTIVITY, 0, frame.data(), frame.size())) {
            worker_.drain();
        }
        worker_.finish(side);
    }
    for (const Noticed& each : noticed()) {
        finished += each.kind == Noticed::Kind::FINISHED ? 1 : 0;
    }
    EXPECT_EQ(finished, 10'000u);
}

TEST_F(WorkerTest, RatesBeyondTheDetectorsCannotBeAnalysed) {
    EXPECT_FALSE(Worker::can_analyse(3999));
    EXPECT_TRUE(Worker::can_analyse(4000));
    EXPECT_TRUE(Worker::can_analyse(48'000));
    EXPECT_FALSE(Worker::can_analyse(48'001));
}

}  // namespace

}  // namespace qv::node::analysis
