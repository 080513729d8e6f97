#include "node/audio/recording.h"

#include <gtest/gtest.h>

#include "tests/node/audio/fake_audio_files.h"

namespace qv::node {

namespace {

using tests::FakeAudioStore;
using Samples = std::vector<std::int16_t>;

constexpr Side ORIGINATOR = Side::ORIGINATOR;
constexpr Side TERMINATOR = Side::TERMINATOR;

class RecordingTest : public testing::Test {
  protected:
    RateSource rate() {
        return [this](Side side, bool last) {
            return rates_[index_of(side)] == 0 && last ? 8000 : rates_[index_of(side)];
        };
    }
    SideRecording sides(bool keep_pauses = false) {
        return SideRecording(store_, [] { return "call"; }, rate(), {4, keep_pauses});
    }

    static void put(Recording& recording, Side side, const Samples& samples) {
        recording.audio(side, samples.data(), samples.size());
    }
    const Samples& samples_of(const std::string& name) { return store_.files.at(name).samples; }

    FakeAudioStore store_;
    std::array<int, SIDE_COUNT> rates_ = {8000, 8000};
};

TEST_F(RecordingTest, NothingIsWrittenBeforeABlockIsFull) {
    SideRecording recording = sides();
    put(recording, ORIGINATOR, {1, 2, 3});
    EXPECT_TRUE(store_.files.empty());
    put(recording, ORIGINATOR, {4});
    EXPECT_EQ(samples_of("call-originator.wav"), (Samples{1, 2, 3, 4}));
}

TEST_F(RecordingTest, FinishWritesTheRestAndCloses) {
    SideRecording recording = sides();
    put(recording, TERMINATOR, {1, 2});
    recording.finish();
    EXPECT_EQ(samples_of("call-terminator.wav"), (Samples{1, 2}));
    EXPECT_TRUE(store_.files.at("call-terminator.wav").closed);
}

TEST_F(RecordingTest, SideWithoutAudioHasNoFile) {
    SideRecording recording = sides();
    put(recording, ORIGINATOR, {1});
    recording.finish();
    EXPECT_EQ(store_.files.size(), 1u);
}

TEST_F(RecordingTest, SideWhoseRateChangesGoesOnInAnotherFile) {
    SideRecording recording = sides();
    put(recording, ORIGINATOR, {1, 2, 3, 4, 5});
    rates_[0] = 16000;
    recording.rate_changed(ORIGINATOR, 8000);
    put(recording, ORIGINATOR, {6, 7});
    rates_[0] = 8000;
    recording.rate_changed(ORIGINATOR, 16000);
    put(recording, ORIGINATOR, {8});
    recording.finish();
    EXPECT_EQ(samples_of("call-originator.wav"), (Samples{1, 2, 3, 4, 5}));
    EXPECT_EQ(samples_of("call-originator-part2.wav"), (Samples{6, 7}));
    EXPECT_EQ(samples_of("call-originator-part3.wav"), (Samples{8}));
    EXPECT_EQ(store_.files.at("call-originator.wav").sample_rate, 8000);
    EXPECT_EQ(store_.files.at("call-originator-part2.wav").sample_rate, 16000);
    EXPECT_EQ(store_.files.at("call-originator-part3.wav").sample_rate, 8000);
    EXPECT_TRUE(store_.files.at("call-originator.wav").closed);
    ASSERT_EQ(recording.files().size(), 3u);
    EXPECT_EQ(recording.files()[1].path, "call-originator-part2.wav");
}

TEST_F(RecordingTest, RateThatChangesBeforeAnyAudioMakesNoFile) {
    SideRecording recording = sides();
    rates_[0] = 16000;
    recording.rate_changed(ORIGINATOR, 8000);
    put(recording, ORIGINATOR, {1});
    recording.finish();
    EXPECT_EQ(store_.files.size(), 1u);
    EXPECT_EQ(store_.files.at("call-originator.wav").sample_rate, 16000);
}

TEST_F(RecordingTest, SideWhoseRateChangesLastMakesNoFurtherFile) {
    SideRecording recording = sides();
    put(recording, ORIGINATOR, {1});
    recording.rate_changed(ORIGINATOR, 8000);
    recording.finish();
    EXPECT_EQ(store_.files.size(), 1u);
}

TEST_F(RecordingTest, FailedFileOfAFormerRateIsReported) {
    store_.errors["call-originator.wav"] = "No space left on device";
    SideRecording recording = sides();
    put(recording, ORIGINATOR, {1});
    recording.rate_changed(ORIGINATOR, 8000);
    put(recording, ORIGINATOR, {2});
    recording.finish();
    EXPECT_EQ(recording.failed_files(), 1u);
    EXPECT_EQ(recording.files()[0].error, "No space left on device");
}

TEST_F(RecordingTest, LongSilenceIsWrittenAtOnce) {
    SideRecording recording = sides(true);
    put(recording, ORIGINATOR, {1});
    recording.pause(ORIGINATOR, 1'000'000);
    EXPECT_EQ(samples_of("call-originator.wav").size(), 1'000'001u);
    EXPECT_EQ(store_.files.at("call-originator.wav").writes, 2u);
    put(recording, ORIGINATOR, {2});
    recording.finish();
    EXPECT_EQ(samples_of("call-originator.wav").back(), 2);
}

TEST_F(RecordingTest, FileWaitsUntilTheRateIsKnown) {
    rates_ = {0, 0};
    SideRecording recording = sides();
    put(recording, ORIGINATOR, {1, 2, 3, 4, 5});
    EXPECT_TRUE(store_.files.empty());
    rates_ = {16000, 0};
    put(recording, ORIGINATOR, {6});
    EXPECT_EQ(store_.files.at("call-originator.wav").sample_rate, 16000);
    EXPECT_EQ(samples_of("call-originator.wav").size(), 6u);
}

TEST_F(RecordingTest, WaitForTheRateIsBounded) {
    rates_ = {0, 0};
    SideRecording recording = sides();
    for (int i = 0; i < 4; ++i) {
        put(recording, ORIGINATOR, {1, 2, 3, 4});
    }
    EXPECT_EQ(store_.files.at("call-originator.wav").sample_rate, 8000);
}

TEST_F(RecordingTest, LostAudioBecomesZeros) {
    SideRecording recording = sides();
    put(recording, ORIGINATOR, {1});
    recording.silence(ORIGINATOR, 3);
    put(recording, ORIGINATOR, {2});
    recording.finish();
    EXPECT_EQ(samples_of("call-originator.wav"), (Samples{1, 0, 0, 0, 2}));
}

TEST_F(RecordingTest, PausesAreKeptOnlyWhenAskedFor) {
    for (const bool keep : {false, true}) {
        SideRecording recording = sides(keep);
        recording.pause(ORIGINATOR, 2);
        put(recording, ORIGINATOR, {1});
        recording.finish();
        EXPECT_EQ(samples_of("call-originator.wav").size(), keep ? 3u : 1u);
    }
}

TEST_F(RecordingTest, FailedFileIsReportedAndTheOtherSideGoesOn) {
    SideRecording recording = sides();
    store_.error = "No space left on device";
    put(recording, ORIGINATOR, {1, 2, 3, 4});
    store_.error.clear();
    put(recording, TERMINATOR, {5, 6, 7, 8});
    put(recording, ORIGINATOR, {1, 2, 3, 4});
    recording.finish();
    EXPECT_EQ(recording.failed_files(), 1u);
    EXPECT_EQ(recording.files()[0].error, "No space left on device");
    EXPECT_EQ(recording.files()[1].error, "");
    EXPECT_EQ(samples_of("call-terminator.wav"), (Samples{5, 6, 7, 8}));
}

}  // namespace

}  // namespace qv::node
