#include "node/calls/rate_estimator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <string>
#include <tuple>

namespace qv::node {

namespace {

class RateEstimatorTest : public testing::Test {
  protected:
    // Sends `frames` frames of `samples`, one every `interval_us`, each up to `jitter_us` late, in
    // turn.
    void send(int frames, std::uint32_t samples, std::int64_t interval_us,
              std::int64_t jitter_us = 0) {
        for (int i = 0; i < frames; ++i) {
            add(offset_, samples, time_ + (i % 3) * jitter_us / 2);
            offset_ += samples;
            time_ += interval_us;
        }
    }

    void add(std::uint32_t offset, std::uint32_t samples, std::int64_t time) {
        estimator_.add(offset, static_cast<std::uint16_t>(samples), time);
    }

    // Sends all frames of a time in which the sender was delayed, at once.
    void hold_up_and_catch_up(int frames, std::uint32_t samples, std::int64_t interval_us) {
        time_ += frames * interval_us;
        for (int i = 0; i < frames; ++i) {
            add(offset_, samples, time_ + i);
            offset_ += samples;
        }
    }

    RateEstimator estimator_;
    std::uint32_t offset_ = 0;
    std::int64_t time_ = 5'000'000;
};

TEST_F(RateEstimatorTest, UsualRatesAreFound) {
    for (const int rate : {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000}) {
        RateEstimator estimator;
        const auto samples = static_cast<std::uint32_t>(rate) / 50;
        for (std::uint32_t i = 0; i < 60; ++i) {
            estimator.add(i * samples, static_cast<std::uint16_t>(samples), i * 20'000);
        }
        EXPECT_EQ(estimator.rate(), rate);
    }
}

TEST_F(RateEstimatorTest, ASecondIsNeeded) {
    send(50, 160, 20'000);
    EXPECT_FALSE(estimator_.rate().has_value());
    send(1, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, ShortSideGivesABestGuess) {
    send(5, 320, 20'000);
    EXPECT_EQ(estimator_.best_guess(), 16000);
}

TEST_F(RateEstimatorTest, JitterDoesNotMatter) {
    send(60, 160, 20'000, 12'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

// 441 samples are 20 ms at 22050 Hz, but not a multiple of 10 ms at 24000 Hz.
TEST_F(RateEstimatorTest, LengthOfAFrameTellsNeighboursApart) {
    send(60, 441, 18'500);
    EXPECT_EQ(estimator_.rate(), 22050);
}

TEST_F(RateEstimatorTest, ASenderThatIsHeldUpIsUnderstood) {
    for (int i = 0; i < 10; ++i) {
        send(10, 441, 20'000);
        hold_up_and_catch_up(6, 441, 20'000);
    }
    EXPECT_EQ(estimator_.rate(), 22050);
}

TEST_F(RateEstimatorTest, NoRateIsFoundTooEarlyWhileTheSenderIsHeldUp) {
    send(4, 960, 20'000);
    for (int i = 0; i < 20; ++i) {
        hold_up_and_catch_up(12, 960, 20'000);
        EXPECT_EQ(estimator_.rate().value_or(48000), 48000);
    }
    EXPECT_EQ(estimator_.rate(), 48000);
}

TEST_F(RateEstimatorTest, WhatIsSentAtOnceAfterALongHoldUpDoesNotCount) {
    for (int i = 0; i < 4; ++i) {
        send(20, 320, 20'000);
        hold_up_and_catch_up(50, 320, 20'000);
    }
    EXPECT_EQ(estimator_.rate(), 16000);
}

TEST_F(RateEstimatorTest, FramesOfNoUsualLengthNeedAnExactTime) {
    send(60, 150, 18'750);
    EXPECT_EQ(estimator_.rate(), 8000);
    send(600, 150, 20'000);
    EXPECT_FALSE(estimator_.rate().has_value());
}

TEST_F(RateEstimatorTest, LengthOfAFrameSuggestsARateWhateverTheTime) {
    send(100, 441, 1);
    EXPECT_EQ(estimator_.rate_of_20_ms_frames(), 22050);
}

TEST_F(RateEstimatorTest, SplitFramesSuggestARateToo) {
    send(1, 299, 1);  // The first packet was lost.
    for (int i = 0; i < 10; ++i) {
        send(1, 661, 1);
        send(1, 299, 1);
    }
    EXPECT_EQ(estimator_.rate_of_20_ms_frames(), 48000);
}

TEST_F(RateEstimatorTest, AnOddLengthSuggestsNoRate) {
    send(10, 150, 1);
    EXPECT_FALSE(estimator_.rate_of_20_ms_frames().has_value());
}

TEST_F(RateEstimatorTest, PausesAreLeftOut) {
    send(30, 160, 20'000);
    time_ += 3'000'000;
    send(30, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, LossDoesNotMatter) {
    for (int i = 0; i < 30; ++i) {
        send(2, 160, 20'000);
        offset_ += 160;
        time_ += 20'000;
    }
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, SplitFramesDoNotMatter) {
    for (int i = 0; i < 60; ++i) {
        send(1, 661, 5);
        send(1, 299, 19'995);
    }
    EXPECT_EQ(estimator_.rate(), 48000);
}

TEST_F(RateEstimatorTest, SenderFasterThanRealTimeHasNoRate) {
    send(10'000, 160, 100);
    EXPECT_FALSE(estimator_.rate().has_value());
    EXPECT_FALSE(estimator_.best_guess().has_value());
}

TEST_F(RateEstimatorTest, OffsetsMayWrap) {
    offset_ = 0xFFFFFFFF - 1000;
    send(60, 160, 20'000);
    EXPECT_EQ(estimator_.rate(), 8000);
}

TEST_F(RateEstimatorTest, ForgedTimesAreHarmless) {
    add(0, 160, INT64_MIN);
    add(160, 160, INT64_MAX);
    EXPECT_FALSE(estimator_.best_guess().has_value());
}

// Every usual rate and frame length, sent like the switch does: split into packets of at most 661
// samples. At some rates a frame is a fraction of a sample too short.
class RateAndFrameTest : public testing::TestWithParam<std::tuple<int, int>> {
  protected:
    static constexpr int FRAMES_MS = 4'000;
    // Returns how late the frame with that index is, in microseconds.
    using Lateness = std::function<std::int64_t(int frame, std::int64_t frame_us)>;

    int rate() const { return std::get<0>(GetParam()); }
    std::int64_t frame_us() const { return std::get<1>(GetParam()) * 1000; }

    // No other rate may be reported on the way, and the right one at the end.
    void expect_rate_is_found(const Lateness& lateness) {
        for (int frame = 0; frame * frame_us() < FRAMES_MS * 1000; ++frame) {
            send_frame(frame * frame_us() + lateness(frame, frame_us()));
            const auto told = estimator_.rate();
            ASSERT_EQ(told.value_or(rate()), rate()) << "after frame " << frame;
        }
        EXPECT_EQ(estimator_.rate(), rate());
    }

    void send_frame(std::int64_t due) {
        time_ = std::max(time_ + 10, due);
        auto left = static_cast<std::uint32_t>(rate() * frame_us() / 1'000'000);
        while (left > 0) {
            const std::uint32_t samples = std::min(left, 661U);
            estimator_.add(offset_, static_cast<std::uint16_t>(samples), time_);
            offset_ += samples;
            left -= samples;
            time_ += 5;
        }
    }

    // All frames that are due while the sender is delayed are sent when it continues.
    static std::int64_t held_up(std::int64_t due_us, std::int64_t from_us, std::int64_t length_us) {
        return due_us >= from_us && due_us < from_us + length_us ? from_us + length_us - due_us : 0;
    }

    RateEstimator estimator_;
    std::uint32_t offset_ = 0;
    std::int64_t time_ = 0;
};

TEST_P(RateAndFrameTest, IsFoundOnTime) {
    expect_rate_is_found([](int, std::int64_t) { return 0; });
}

TEST_P(RateAndFrameTest, IsFoundWithinASecondAndALittle) {
    for (int frame = 0; frame * frame_us() < 1'100'000; ++frame) {
        send_frame(frame * frame_us());
    }
    EXPECT_EQ(estimator_.rate(), rate());
}

TEST_P(RateAndFrameTest, IsFoundWithJitter) {
    for (const std::int64_t jitter_us : {2'000, 5'000, 8'000}) {
        estimator_ = {};
        offset_ = 0;
        time_ = 0;
        expect_rate_is_found([jitter_us](int frame, std::int64_t) {
            constexpr std::array<std::int64_t, 7> EIGHTHS = {3, 8, 0, 5, 1, 7, 2};
            return jitter_us * EIGHTHS[static_cast<std::size_t>(frame) % EIGHTHS.size()] / 8;
        });
    }
}

TEST_P(RateAndFrameTest, IsFoundThoughTheSenderWasHeldUp) {
    for (const std::int64_t length_us : {100'000, 160'000, 230'000, 400'000}) {
        for (const std::int64_t from_us : {0, 100'000, 500'000, 800'000, 950'000, 1'300'000}) {
            SCOPED_TRACE(std::to_string(from_us) + " us: for " + std::to_string(length_us));
            estimator_ = {};
            offset_ = 0;
            time_ = 0;
            expect_rate_is_found([=](int frame, std::int64_t frame_us) {
                return held_up(frame * frame_us, from_us, length_us);
            });
        }
    }
}

TEST_P(RateAndFrameTest, IsFoundThoughTheSenderIsHeldUpAgainAndAgain) {
    expect_rate_is_found([](int frame, std::int64_t frame_us) {
        const std::int64_t due = frame * frame_us;
        return held_up(due % 370'000, 250'000, 120'000);
    });
}

TEST_P(RateAndFrameTest, IsTheBestGuessOfAShortSide) {
    for (int frame = 0; frame * frame_us() <= 300'000; ++frame) {
        send_frame(frame * frame_us() + (frame % 3) * 1'000);
    }
    EXPECT_EQ(estimator_.best_guess(), rate());
}

INSTANTIATE_TEST_SUITE_P(Usual, RateAndFrameTest,
                         testing::Combine(testing::Values(8000, 11025, 12000, 16000, 22050, 24000,
                                                          32000, 44100, 48000),
                                          testing::Values(10, 15, 20, 25, 30, 40, 45, 60)),
                         [](const auto& each) {
                             return std::to_string(std::get<0>(each.param)) + "Hz" +
                                    std::to_string(std::get<1>(each.param)) + "ms";
                         });

}  // namespace

}  // namespace qv::node
