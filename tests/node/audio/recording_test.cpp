#include "node/audio/recording.h"

#include <gtest/gtest.h>

#include "tests/node/audio/fake_audio_files.h"

namespace {

using namespace qv::node;
using qv::test::FakeAudioStore;
using Samples = std::vector<std::int16_t>;

constexpr Side ORIGINATOR = Side::ORIGINATOR;
constexpr Side TERMINATOR = Side::TERMINATOR;

constexpr Uuid CALL = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                       0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};

// Counts how often it is asked for a file.
class AskedStore : public FakeAudioStore {
  public:
    bool exists(const std::string& name) const override {
        ++asked;
        return FakeAudioStore::exists(name);
    }

    mutable unsigned asked = 0;
};

class RecordingTest : public testing::Test {
  protected:
    RateSource rate() {
        return [this](Side side, bool last) {
            return rates_[index_of(side)] == 0 && last ? 8000 : rates_[index_of(side)];
        };
    }
    SideRecording sides(bool keep_pauses = false) {
        return SideRecording(store_, "call", rate(), {4, keep_pauses});
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

class FreeStemTest : public testing::Test {
  protected:
    std::string stem() const { return free_stem(store_, CALL); }
    void take(const std::string& rest) { store_.files[FIRST + rest] = {}; }
    void take_numbers(unsigned from, unsigned to) {
        for (unsigned number = from; number <= to; ++number) {
            take('-' + std::to_string(number) + "-originator.wav");
        }
    }

    const std::string FIRST = "00010203-0405-0607-0809-0a0b0c0d0e0f";
    AskedStore store_;
};

TEST_F(FreeStemTest, IsTheUuidWhenThatIsFree) {
    EXPECT_EQ(stem(), FIRST);
}

TEST_F(FreeStemTest, CountsEarlierFilesOfAnyKind) {
    for (const std::string kind : {"-originator.wav", "-terminator.wav", ".wav", ".svg"}) {
        store_.files.clear();
        take(kind);
        EXPECT_EQ(stem(), FIRST + "-2") << kind;
        take("-2" + kind);
        EXPECT_EQ(stem(), FIRST + "-3") << kind;
    }
}

TEST_F(FreeStemTest, NumbersFollowEachOtherWithoutHoles) {
    take("-originator.wav");
    for (unsigned number = 2; number < 200; ++number) {
        ASSERT_EQ(stem(), FIRST + '-' + std::to_string(number));
        take_numbers(number, number);
    }
}

// A sender may restart a call as often as it likes.
TEST_F(FreeStemTest, ThousandsOfEarlierFilesCostFewLooks) {
    take("-originator.wav");
    for (const unsigned last : {4'095u, 4'096u, 4'097u, 20'000u}) {
        take_numbers(2, last);
        store_.asked = 0;
        EXPECT_EQ(stem(), FIRST + '-' + std::to_string(last + 1));
        EXPECT_LE(store_.asked, 100u) << last;
    }
}

TEST_F(FreeStemTest, IsFreeAlsoWhenFilesWereTakenAway) {
    take("-originator.wav");
    take_numbers(2, 40);
    take_numbers(60, 100);
    for (unsigned removed = 3; removed < 100; removed += 7) {
        store_.files.erase(FIRST + '-' + std::to_string(removed) + "-originator.wav");
        EXPECT_EQ(store_.files.count(stem() + "-originator.wav"), 0u) << removed;
    }
}

}  // namespace
