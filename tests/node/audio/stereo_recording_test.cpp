#include "node/audio/stereo_recording.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "tests/node/audio/fake_audio_files.h"

namespace qv::node {

namespace {

using tests::FakeAudioStore;
using Samples = std::vector<std::int16_t>;

// Blocks have four samples, so up to 32 samples of one side wait for the other side.
class StereoRecordingTest : public testing::Test {
  protected:
    void put(Side side, const Samples& samples) {
        recording_.audio(side, samples.data(), samples.size());
    }
    void set_rates(int originator, int terminator) { rates_ = {originator, terminator}; }

    const Samples& written() { return store_.files.at("call.wav").samples; }
    std::size_t frames() { return written().size() / 2; }
    std::int16_t right(std::size_t frame) { return written().at(2 * frame + 1); }

    FakeAudioStore store_;
    std::array<int, SIDE_COUNT> rates_ = {8000, 8000};
    StereoRecording recording_{
        store_, [] { return "call"; },
        [this](Side side, bool last) {
            return rates_[index_of(side)] == 0 && last ? 8000 : rates_[index_of(side)];
        },
        RecordingOptions{4, false, false}};
};

TEST_F(StereoRecordingTest, OriginatorIsLeft) {
    put(Side::ORIGINATOR, {1, 2, 3, 4});
    put(Side::TERMINATOR, {-1, -2, -3, -4});
    EXPECT_EQ(written(), (Samples{1, -1, 2, -2, 3, -3, 4, -4}));
    EXPECT_EQ(store_.files.at("call.wav").channels, 2);
    EXPECT_EQ(store_.files.at("call.wav").sample_rate, 8000);
}

TEST_F(StereoRecordingTest, NothingIsWrittenBeforeBothSidesHaveABlock) {
    put(Side::ORIGINATOR, {1, 2, 3, 4});
    put(Side::TERMINATOR, {-1, -2, -3});
    EXPECT_TRUE(store_.files.empty());
}

TEST_F(StereoRecordingTest, ShorterSideIsFilledAtTheEnd) {
    put(Side::ORIGINATOR, {1, 2});
    put(Side::TERMINATOR, {-1});
    recording_.finish();
    EXPECT_EQ(written(), (Samples{1, -1, 2, 0}));
    EXPECT_TRUE(store_.files.at("call.wav").closed);
}

TEST_F(StereoRecordingTest, ASideThatNeverComesIsSilent) {
    put(Side::TERMINATOR, {7, 8});
    recording_.finish();
    EXPECT_EQ(written(), (Samples{0, 7, 0, 8}));
}

TEST_F(StereoRecordingTest, LongPauseOfBothSidesIsWrittenAtOnce) {
    put(Side::ORIGINATOR, {1, 2, 3, 4, 5});
    put(Side::TERMINATOR, {-1, -2});
    recording_.pause(Side::ORIGINATOR, 1'000'000);
    EXPECT_LT(store_.files.at("call.wav").writes, 5u);
    recording_.pause(Side::TERMINATOR, 1'000'003);
    put(Side::ORIGINATOR, {6});
    put(Side::TERMINATOR, {-6});
    recording_.finish();
    EXPECT_EQ(frames(), 1'000'006u);
    EXPECT_EQ(written().at(8), 5);
    EXPECT_EQ(right(1), -2);
    EXPECT_EQ(right(2), 0);
    EXPECT_EQ(written().at(std::size_t{2} * 1'000'005), 6);
    EXPECT_EQ(right(1'000'005), -6);
}

TEST_F(StereoRecordingTest, LongPauseWaitsForNoAudioThatCameBeforeIt) {
    put(Side::ORIGINATOR, {1});
    put(Side::TERMINATOR, {-1, -2, -3, -4, -5, -6, -7});
    recording_.pause(Side::ORIGINATOR, 100);
    put(Side::ORIGINATOR, {2});
    recording_.finish();
    EXPECT_EQ(frames(), 102u);
    EXPECT_EQ(right(6), -7);
    EXPECT_EQ(right(7), 0);
    EXPECT_EQ(written().at(std::size_t{2} * 101), 2);
}

TEST_F(StereoRecordingTest, ACallWithoutAudioHasNoFile) {
    recording_.finish();
    EXPECT_TRUE(store_.files.empty());
    EXPECT_TRUE(recording_.files().empty());
    EXPECT_EQ(recording_.failed_files(), 0u);
}

TEST_F(StereoRecordingTest, LostAudioIsSilence) {
    put(Side::ORIGINATOR, {1, 2, 3});
    put(Side::TERMINATOR, {9});
    recording_.silence(Side::TERMINATOR, 1);
    put(Side::TERMINATOR, {9});
    recording_.finish();
    EXPECT_EQ(written(), (Samples{1, 9, 2, 0, 3, 9}));
}

TEST_F(StereoRecordingTest, ASideThatIsAwayIsPaddedWithSilence) {
    put(Side::ORIGINATOR, Samples(32, 7));
    EXPECT_EQ(frames(), 16u);
    // The padding has taken the place of the pause, so the next audio follows directly.
    recording_.pause(Side::TERMINATOR, 16);
    put(Side::TERMINATOR, {9});
    recording_.finish();
    EXPECT_EQ(right(16), 9);
    EXPECT_EQ(frames(), 32u);
}

TEST_F(StereoRecordingTest, APauseLongerThanThePaddingIsWrittenInPart) {
    put(Side::ORIGINATOR, Samples(32, 7));
    recording_.pause(Side::TERMINATOR, 18);
    put(Side::TERMINATOR, {9});
    recording_.finish();
    EXPECT_EQ(right(17), 0);
    EXPECT_EQ(right(18), 9);
    EXPECT_EQ(frames(), 32u);
}

TEST_F(StereoRecordingTest, AudioIsWrittenThoughPaddingStandsInItsPlace) {
    put(Side::ORIGINATOR, Samples(32, 7));
    put(Side::TERMINATOR, Samples(3, 9));
    recording_.pause(Side::TERMINATOR, 16);
    put(Side::TERMINATOR, {8});
    recording_.finish();
    EXPECT_EQ(right(16), 9);
    EXPECT_EQ(right(18), 9);
    EXPECT_EQ(right(19 + 16), 8);
}

TEST_F(StereoRecordingTest, FileWaitsUntilTheRateIsKnown) {
    set_rates(0, 0);
    put(Side::ORIGINATOR, Samples(8, 1));
    put(Side::TERMINATOR, Samples(8, 2));
    EXPECT_TRUE(store_.files.empty());
    set_rates(16000, 16000);
    put(Side::ORIGINATOR, {1});
    EXPECT_EQ(store_.files.at("call.wav").sample_rate, 16000);
    EXPECT_EQ(frames(), 8u);
}

TEST_F(StereoRecordingTest, WaitForTheRateIsBounded) {
    set_rates(0, 0);
    put(Side::ORIGINATOR, Samples(31, 1));
    EXPECT_TRUE(store_.files.empty());
    put(Side::ORIGINATOR, {1});
    EXPECT_EQ(store_.files.at("call.wav").sample_rate, 8000);
}

TEST_F(StereoRecordingTest, SidesOfDifferentRatesGetAFileEach) {
    set_rates(8000, 16000);
    put(Side::ORIGINATOR, {1, 2, 3, 4});
    put(Side::TERMINATOR, {5, 6, 7, 8});
    put(Side::ORIGINATOR, {1, 2, 3, 4});
    recording_.finish();
    EXPECT_EQ(store_.files.count("call.wav"), 0u);
    EXPECT_EQ(store_.files.at("call-split-originator.wav").samples,
              (Samples{1, 2, 3, 4, 1, 2, 3, 4}));
    EXPECT_EQ(store_.files.at("call-split-terminator.wav").samples, (Samples{5, 6, 7, 8}));
    EXPECT_EQ(store_.files.at("call-split-terminator.wav").sample_rate, 16000);
    EXPECT_EQ(recording_.files().size(), 2u);
}

TEST_F(StereoRecordingTest, WaitForTheRateIsBoundedWhenBothSidesGoOn) {
    set_rates(0, 0);
    for (int i = 0; i < 8; ++i) {
        put(Side::ORIGINATOR, Samples(4, 1));
        put(Side::TERMINATOR, Samples(4, 2));
    }
    EXPECT_EQ(store_.files.at("call.wav").sample_rate, 8000);
}

TEST_F(StereoRecordingTest, OneSideOfUnknownRateKeepsTheOtherWaiting) {
    set_rates(8000, 0);
    put(Side::ORIGINATOR, {1, 2, 3, 4});
    put(Side::TERMINATOR, {5, 6, 7, 8});
    EXPECT_TRUE(store_.files.empty());
}

TEST_F(StereoRecordingTest, ASideOfAnotherRateThatBeginsLaterGetsAFileOfItsOwn) {
    set_rates(8000, 16000);
    put(Side::ORIGINATOR, Samples(32, 1));
    put(Side::TERMINATOR, {5, 6, 7, 8});
    recording_.silence(Side::TERMINATOR, 1);
    put(Side::ORIGINATOR, {2});
    put(Side::TERMINATOR, {9});
    recording_.finish();
    EXPECT_EQ(store_.files.at("call-split-terminator.wav").samples, (Samples{5, 6, 7, 8, 0, 9}));
    EXPECT_EQ(store_.files.at("call-split-terminator.wav").sample_rate, 16000);
    EXPECT_TRUE(store_.files.at("call-split-terminator.wav").closed);
    EXPECT_EQ(frames(), 33u);
    EXPECT_EQ(written().at(2 * 32), 2);
    EXPECT_EQ(right(32), 0);
    EXPECT_TRUE(store_.files.at("call.wav").closed);
    EXPECT_EQ(recording_.files().size(), 2u);
}

TEST_F(StereoRecordingTest, DifferentRatesShowAtTheEndAtTheLatest) {
    set_rates(8000, 16000);
    put(Side::ORIGINATOR, {1});
    put(Side::TERMINATOR, {2});
    recording_.finish();
    EXPECT_EQ(store_.files.size(), 2u);
    EXPECT_TRUE(store_.files.at("call-split-terminator.wav").closed);
}

TEST_F(StereoRecordingTest, FailedFileIsReportedWithItsPath) {
    store_.error = "No space left on device";
    put(Side::ORIGINATOR, Samples(32, 1));
    recording_.finish();
    EXPECT_EQ(recording_.failed_files(), 1u);
    ASSERT_EQ(recording_.files().size(), 1u);
    EXPECT_EQ(recording_.files()[0].path, "call.wav");
    EXPECT_EQ(recording_.files()[0].error, "No space left on device");
}

TEST_F(StereoRecordingTest, FailedFilesOfSplitSidesAreReported) {
    set_rates(8000, 16000);
    store_.error = "No space left on device";
    put(Side::ORIGINATOR, {1});
    put(Side::TERMINATOR, {2});
    recording_.finish();
    EXPECT_EQ(recording_.failed_files(), 2u);
    EXPECT_EQ(recording_.files()[1].error, "No space left on device");
}

TEST_F(StereoRecordingTest, SideWhoseRateChangesIsSetApart) {
    put(Side::ORIGINATOR, {1, 2, 3, 4, 5});
    put(Side::TERMINATOR, {-1, -2, -3, -4, -5});
    set_rates(16000, 8000);
    recording_.rate_changed(Side::ORIGINATOR, 8000);
    put(Side::ORIGINATOR, {6, 7});
    put(Side::TERMINATOR, {-6});
    recording_.finish();
    EXPECT_EQ(written(), (Samples{1, -1, 2, -2, 3, -3, 4, -4, 5, -5, 0, -6}));
    EXPECT_EQ(store_.files.at("call-split-originator.wav").samples, (Samples{6, 7}));
    EXPECT_EQ(store_.files.at("call-split-originator.wav").sample_rate, 16000);
}

// Both sides in one file, whatever their rates; blocks of 400 samples.
class ResampledStereoTest : public testing::Test {
  protected:
    // A tone of 400 Hz at that rate, which goes on where it ended.
    void play(Side side, int rate, double seconds) {
        Samples samples(static_cast<std::size_t>(std::lround(seconds * rate)));
        double& time = times_[index_of(side)];
        for (std::int16_t& sample : samples) {
            sample = tone(time);
            time += 1.0 / rate;
        }
        recording_.audio(side, samples.data(), samples.size());
    }
    static std::int16_t tone(double time) {
        return static_cast<std::int16_t>(std::lround(8000 * std::sin(2 * M_PI * 400 * time)));
    }
    // Both sides at once, for a multiple of 40 ms, which are whole samples at all rates here.
    void play_both(double seconds) {
        for (double time = 0; time < seconds - 0.02; time += 0.04) {
            play(Side::ORIGINATOR, rates_[0], 0.04);
            play(Side::TERMINATOR, rates_[1], 0.04);
        }
    }
    void change_rate(Side side, int rate) {
        const int former = std::exchange(rates_[index_of(side)], rate);
        recording_.rate_changed(side, former);
    }
    std::size_t frames() { return store_.files.at("call.wav").samples.size() / 2; }
    // The largest difference from the tone, over so many seconds of the file.
    int error(Side side, double begin, double end) {
        const Samples& written = store_.files.at("call.wav").samples;
        const int rate = store_.files.at("call.wav").sample_rate;
        int largest = 0;
        for (double time = begin; time < end; time += 1.0 / rate) {
            const auto frame = static_cast<std::size_t>(std::lround(time * rate));
            const int there = written.at(2 * frame + index_of(side));
            largest = std::max(largest, std::abs(there - tone(static_cast<double>(frame) / rate)));
        }
        return largest;
    }

    FakeAudioStore store_;
    std::array<int, SIDE_COUNT> rates_ = {8000, 8000};
    std::array<double, SIDE_COUNT> times_{};
    StereoRecording recording_{store_, [] { return "call"; },
                               [this](Side side, bool) { return rates_[index_of(side)]; },
                               RecordingOptions{400, false}};
};

TEST_F(ResampledStereoTest, SidesOfDifferentRatesShareAFileOfTheHigherOne) {
    rates_ = {8000, 16000};
    play_both(2);
    recording_.finish();
    EXPECT_EQ(store_.files.size(), 1u);
    EXPECT_EQ(store_.files.at("call.wav").sample_rate, 16000);
    EXPECT_EQ(frames(), 32'000u);
    EXPECT_LT(error(Side::ORIGINATOR, 0.01, 1.99), 80);
    EXPECT_EQ(error(Side::TERMINATOR, 0, 1.99), 0);
}

TEST_F(ResampledStereoTest, SideWhoseRateChangesStaysInItsPlace) {
    for (const int rate : {8000, 16000, 48000, 11025, 8000}) {
        if (rate != rates_[0]) {
            change_rate(Side::ORIGINATOR, rate);
        }
        play_both(4);
    }
    recording_.finish();
    EXPECT_EQ(store_.files.size(), 1u);
    EXPECT_NEAR(static_cast<double>(frames()), 20 * 8000, 4);
    for (const double begin : {0.0, 4.0, 8.0, 12.0, 16.0}) {
        EXPECT_LT(error(Side::ORIGINATOR, begin + 0.05, begin + 3.95), 80) << begin;
    }
    EXPECT_EQ(error(Side::TERMINATOR, 0, 19.9), 0);
}

TEST_F(ResampledStereoTest, SilenceIsAsLongAtTheOtherRate) {
    rates_ = {8000, 16000};
    play_both(1);
    recording_.silence(Side::ORIGINATOR, 4000);
    recording_.silence(Side::TERMINATOR, 8000);
    times_ = {1.5, 1.5};
    play_both(1);
    recording_.finish();
    EXPECT_EQ(frames(), 40'000u);
    EXPECT_LT(error(Side::ORIGINATOR, 0.05, 0.95), 80);
    EXPECT_LT(error(Side::ORIGINATOR, 1.55, 2.45), 80);
    EXPECT_EQ(store_.files.at("call.wav").samples.at(std::size_t{2} * 20'000), 0);
}

TEST_F(ResampledStereoTest, RateThatChangesBeforeTheFileIsMadeIsThatOfTheFile) {
    play(Side::ORIGINATOR, 8000, 0.04);
    play(Side::TERMINATOR, 8000, 0.04);
    EXPECT_TRUE(store_.files.empty());
    change_rate(Side::ORIGINATOR, 16000);
    play_both(0.96);
    recording_.finish();
    EXPECT_EQ(store_.files.at("call.wav").sample_rate, 16000);
    EXPECT_EQ(frames(), 16'000u);
    EXPECT_LT(error(Side::ORIGINATOR, 0.06, 0.99), 80);
    EXPECT_LT(error(Side::TERMINATOR, 0.02, 0.98), 80);
}

TEST_F(ResampledStereoTest, SideOfAnotherRateThatBeginsLaterIsConverted) {
    rates_ = {8000, 16000};
    for (int i = 0; i < 50; ++i) {
        play(Side::ORIGINATOR, 8000, 0.02);
    }
    EXPECT_GT(frames(), 0u);
    recording_.silence(Side::TERMINATOR, 16'000);
    times_[1] = 1;
    play_both(1);
    recording_.finish();
    EXPECT_EQ(store_.files.at("call.wav").sample_rate, 8000);
    EXPECT_EQ(frames(), 16'000u);
    EXPECT_LT(error(Side::TERMINATOR, 1.05, 1.95), 80);
}

}  // namespace

}  // namespace qv::node
