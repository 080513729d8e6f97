#include "node/web/audio_tap.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace qv::node::web {

namespace {

class AudioTapTest : public testing::Test {
  protected:
    void push(std::size_t count, std::uint64_t place, bool after_loss = false) {
        std::vector<std::int16_t> samples(count);
        for (std::size_t i = 0; i < count; ++i) {
            samples[i] = static_cast<std::int16_t>(place + i);
        }
        tap_->push(samples.data(), count, {place, 8000, Micros{5}, after_loss});
    }

    std::unique_ptr<AudioTap> tap_ = std::make_unique<AudioTap>();
};

TEST_F(AudioTapTest, WhatIsPushedComesOut) {
    EXPECT_EQ(tap_->front(), nullptr);
    push(3, 100, true);
    const AudioTap::Part* part = tap_->front();
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part->place, 100U);
    EXPECT_EQ(part->sample_rate, 8000);
    EXPECT_EQ(part->came, Micros{5});
    EXPECT_TRUE(part->after_loss);
    ASSERT_EQ(part->count, 3U);
    EXPECT_EQ(part->samples[2], 102);
    tap_->pop();
    EXPECT_EQ(tap_->front(), nullptr);
}

TEST_F(AudioTapTest, MoreThanAPartHoldsBecomesSeveral) {
    push(AudioTap::PART_SAMPLES + 1, 0, true);
    EXPECT_EQ(tap_->front()->count, AudioTap::PART_SAMPLES);
    EXPECT_TRUE(tap_->front()->after_loss);
    tap_->pop();
    EXPECT_EQ(tap_->front()->count, 1U);
    EXPECT_EQ(tap_->front()->place, AudioTap::PART_SAMPLES);
    EXPECT_FALSE(tap_->front()->after_loss);
}

TEST_F(AudioTapTest, WhatFindsNoRoomIsLostAndTheNextPartSaysSo) {
    for (std::size_t i = 0; i <= AudioTap::MOST_PARTS; ++i) {
        push(1, i);
    }
    for (std::size_t i = 0; i < AudioTap::MOST_PARTS; ++i) {
        ASSERT_NE(tap_->front(), nullptr);
        EXPECT_EQ(tap_->front()->place, i);
        EXPECT_FALSE(tap_->front()->after_loss);
        tap_->pop();
    }
    EXPECT_EQ(tap_->front(), nullptr);
    push(1, 1000);
    EXPECT_TRUE(tap_->front()->after_loss);
}

// The order and the content are right, whether the reader keeps up or not.
TEST_F(AudioTapTest, TwoThreadsMayUseIt) {
    constexpr std::uint64_t PARTS = 20'000;
    std::atomic<bool> over{false};
    std::thread writer([this, &over] {
        for (std::uint64_t i = 0; i < PARTS; ++i) {
            push(2, 2 * i);
        }
        over = true;
    });
    std::uint64_t end = 0;
    bool right = true;
    for (bool last = false; !last;) {
        last = over;
        while (const AudioTap::Part* part = tap_->front()) {
            right = right && part->samples[1] == static_cast<std::int16_t>(part->place + 1) &&
                    (part->place == end || (part->place > end && part->after_loss));
            end = part->place + 2;
            tap_->pop();
        }
    }
    writer.join();
    EXPECT_TRUE(right);
    EXPECT_GT(end, 0U);
}

}  // namespace

}  // namespace qv::node::web
