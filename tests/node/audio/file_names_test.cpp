#include "node/audio/file_names.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "node/calls/call.h"
#include "tests/node/audio/fake_audio_files.h"

namespace qv::node {

namespace {

using tests::FakeAudioStore;

constexpr Uuid CALL = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                       0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};

// Counts how often it is asked whether a file exists.
class AskedStore : public FakeAudioStore {
  public:
    bool exists(const std::string& name) const override {
        ++asked;
        return FakeAudioStore::exists(name);
    }

    mutable unsigned asked = 0;
};

class FreeStemTest : public testing::Test {
  protected:
    std::string stem() const { return free_stem(store_, FIRST); }
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

// Each call may create two files; one run may create four.
class FileNamesTest : public testing::Test {
  protected:
    const std::string& begin(unsigned char last_byte) {
        Uuid uuid = CALL;
        uuid[15] = last_byte;
        calls_.push_back(std::make_unique<Call>(uuid, 7, Arrival{}, limits_,
                                                std::vector<CallListener*>{&names_}));
        return calls_.back()->file_stem();
    }
    void end_first() {
        calls_.front()->close(EndReason::TERMINATED);
        calls_.front()->report_end(EndReason::TERMINATED);
        calls_.erase(calls_.begin());
    }

    const std::string STEM = "00010203-0405-0607-0809-0a0b0c0d0e";
    CallLimits limits_;
    FakeAudioStore store_;
    std::uint64_t files_ = 0;
    unsigned refusals_told_ = 0;
    FileNames names_{
        store_, {false, 4, 2}, [this] { return files_; }, [this] { ++refusals_told_; }};
    std::vector<std::unique_ptr<Call>> calls_;
};

TEST_F(FileNamesTest, CallsThatTogetherCouldMakeTooManyFilesGetNone) {
    EXPECT_EQ(begin(1), STEM + "01");
    EXPECT_EQ(begin(2), STEM + "02");
    EXPECT_EQ(refusals_told_, 0u);
    EXPECT_EQ(begin(3), "");
    EXPECT_EQ(begin(4), "");
    EXPECT_EQ(refusals_told_, 1u);
    EXPECT_EQ(names_.refused_calls(), 2u);
}

TEST_F(FileNamesTest, CallThatEndedCountsWithTheFilesThatItMade) {
    begin(1);
    begin(2);
    files_ = 1;
    end_first();
    EXPECT_EQ(begin(3), "") << "one file made, and four that two calls may make";
    end_first();
    end_first();
    EXPECT_EQ(begin(4), STEM + "04");
}

// Calls whose files are named after their references.
class ReferenceNamesTest : public testing::Test {
  protected:
    // Begins a call with that last byte of its UUID.
    Call& begin(unsigned char last_byte) {
        Uuid uuid = CALL;
        uuid[15] = last_byte;
        calls_.push_back(std::make_unique<Call>(uuid, 7, Arrival{}, limits_,
                                                std::vector<CallListener*>{&names_}));
        return *calls_.back();
    }
    static void start(Call& call, const std::string& reference) {
        media::Packet packet;
        packet.type = media::PacketType::START;
        packet.call_key = 7;
        packet.call_reference = reference.c_str();
        packet.call_reference_length = static_cast<std::uint16_t>(reference.size());
        call.receive(packet, {});
    }
    static void talk(Call& call) {
        static constexpr unsigned char AUDIO[2] = {};
        media::Packet packet;
        packet.type = media::PacketType::DATA;
        packet.call_key = 7;
        packet.sequence_number = 1;
        packet.sample_count = 1;
        packet.audio = AUDIO;
        call.receive(packet, {});
    }

    FileNames::Options options_{false, 0, 2, NamePattern("{date}-{reference}"),
                                [] { return "2026-01-31T23:59:58.123456Z"; }};
    CallLimits limits_;
    AskedStore store_;
    FileNames names_{store_, options_, [] { return 0; }, [] {}};
    std::vector<std::unique_ptr<Call>> calls_;
};

TEST_F(ReferenceNamesTest, CallIsNamedWhenItsReferenceComes) {
    Call& call = begin(1);
    start(call, "a/b");
    EXPECT_EQ(call.file_stem(), "2026-01-31-a_b");
}

TEST_F(ReferenceNamesTest, CallsOfOneReferenceAreNumberedBeforeTheyHaveFiles) {
    for (const std::string expected : {"-a", "-a-2", "-a-3"}) {
        Call& call = begin(static_cast<unsigned char>(calls_.size()));
        start(call, "a");
        EXPECT_EQ(call.file_stem(), "2026-01-31" + expected);
    }
}

// "a" in stereo writes a-originator.wav, a-split-originator.wav and a-originator-part2.wav, and
// a-originator-2.wav if another program has written a file of the name.
TEST_F(ReferenceNamesTest, NoNameEndsLikeAFileOfAnotherCall) {
    unsigned char number = 0;
    for (const std::string end :
         {"originator", "terminator", "split", "part2", "part17", "originator-2", "part2-13"}) {
        Call& call = begin(number++);
        start(call, "a-" + end);
        EXPECT_EQ(call.file_stem(), "2026-01-31-a-" + end + "_");
    }
    for (const std::string end : {"origin", "part", "partner", "part2b", "2", "2-3"}) {
        Call& call = begin(number++);
        start(call, "a-" + end);
        EXPECT_EQ(call.file_stem(), "2026-01-31-a-" + end);
    }
}

TEST_F(ReferenceNamesTest, ReferenceThatIsTheUuidOfAnotherCallDoesNotShareItsName) {
    const std::string uuid = uuid_text(CALL);
    options_.pattern = NamePattern("{reference}");
    options_.overwrite = true;
    FileNames names(
        store_, options_, [] { return 0; }, [] {});
    Uuid stranger = CALL;
    stranger[0] = 0xFF;
    Call first(stranger, 7, {}, limits_, {&names});
    start(first, uuid);
    Call second(CALL, 7, {}, limits_, {&names});
    start(second, uuid);
    EXPECT_EQ(first.file_stem(), uuid);
    EXPECT_EQ(second.file_stem(), uuid + "-2");
}

TEST_F(ReferenceNamesTest, HundredsOfPresentCallsOfOneReferenceCostFewLooks) {
    for (unsigned number = 0; number < 250; ++number) {
        start(begin(static_cast<unsigned char>(number)), "a");
    }
    EXPECT_EQ(calls_.back()->file_stem(), "2026-01-31-a-250");
    EXPECT_LE(store_.asked, 250u * 100u);
}

TEST_F(ReferenceNamesTest, NameDoesNotChangeOnceThereMayBeFiles) {
    Call& call = begin(1);
    talk(call);
    start(call, "a");
    EXPECT_EQ(call.file_stem(), "2026-01-31-unknown");
}

TEST(WavNameTest, ConvertedFilesHadAnotherEnding) {
    EXPECT_EQ(wav_name("a-originator.flac"), "a-originator.wav");
    EXPECT_EQ(wav_name("a.b.opus"), "a.b.wav");
    EXPECT_EQ(wav_name("a.wav"), "a.wav");
    EXPECT_EQ(wav_name("a.svg"), "a.svg");
    EXPECT_EQ(wav_name("opus"), "opus");
}

TEST_F(FileNamesTest, FilesThatAreWorkedOnAreNotOverwritten) {
    FileNames::Options options;
    options.overwrite = true;
    options.keep_incomplete = true;
    FileNames overwriting(
        store_, options, [] { return 0; }, [] {});
    store_.files[STEM + "0f-originator.wav"] = {};
    const auto first = std::make_unique<Call>(CALL, 7, Arrival{}, limits_,
                                              std::vector<CallListener*>{&overwriting});
    EXPECT_EQ(first->file_stem(), STEM + "0f");
    const Call again(CALL, 7, {}, limits_, {&overwriting});
    EXPECT_EQ(again.file_stem(), STEM + "0f-2");
}

TEST_F(FileNamesTest, OverwritingTakesTheUuidThoughItHasFiles) {
    FileNames overwriting(
        store_, {true, 0, 2}, [] { return 0; }, [] {});
    store_.files[STEM + "0f-originator.wav"] = {};
    const Call call(CALL, 7, {}, limits_, {&overwriting});
    EXPECT_EQ(call.file_stem(), STEM + "0f");
}

}  // namespace

}  // namespace qv::node
