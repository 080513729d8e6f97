#include "node/analysis/sample_detector.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/node/analysis/sounds.h"

namespace qv::node::analysis {

namespace {

using namespace tests;

struct Found {
    std::string name;
    double seconds;  // Position.
    double heard;
    double score;
};

struct List : SampleOutput {
    explicit List(int side_rate) : rate(side_rate) {}
    void sample(const SampleFound& found) override {
        list.push_back({found.name, static_cast<double>(found.position) / rate,
                        static_cast<double>(found.heard) / rate, found.score});
    }
    int rate;
    std::vector<Found> list;
};

// Ten references of 0.8 to 3.5 seconds, named after their seeds.
Sound reference(unsigned seed, int rate = 8000) {
    return babble(0.5 + 0.3 * seed, seed, rate);
}

std::shared_ptr<const SampleIndex> ten_references() {
    SampleIndexBuilder builder;
    for (unsigned seed = 1; seed <= 10; ++seed) {
        const Sound sound = reference(seed);
        EXPECT_EQ(builder.add(std::to_string(seed), sound.data(), sound.size(), 8000), "");
    }
    return builder.build();
}

std::vector<Found> found_in(const Sound& sound, int rate = 8000, std::size_t packet = 160,
                            std::shared_ptr<const SampleIndex> index = nullptr) {
    static const auto usual = ten_references();
    index = index == nullptr ? usual : index;
    const auto samples = pcm(sound);
    SampleDetector detector(index, rate);
    List list(rate);
    for (std::size_t at = 0; at < samples.size(); at += packet) {
        detector.add(samples.data() + at, std::min(packet, samples.size() - at), list);
    }
    return list.list;
}

TEST(SampleDetectorTest, FindsEveryReferenceOnceAndWhereItBegins) {
    for (unsigned seed = 1; seed <= 10; ++seed) {
        const Sound before = babble(2.123, 100 + seed);
        const auto found = found_in(before + reference(seed) + babble(2, 200 + seed));
        ASSERT_EQ(found.size(), 1u) << seed;
        EXPECT_EQ(found[0].name, std::to_string(seed));
        EXPECT_NEAR(found[0].seconds, 2.123, 0.02);
        EXPECT_GT(found[0].score, 0.7);
    }
}

TEST(SampleDetectorTest, FindsNothingInOtherSound) {
    EXPECT_TRUE(found_in(babble(60, 77)).empty());
    EXPECT_TRUE(found_in(noise(20, 0.1, 5)).empty());
    EXPECT_TRUE(found_in(silence(20)).empty());
}

TEST(SampleDetectorTest, FindsReferencesAtEveryRateOfTheSide) {
    for (const int rate : {8000, 11025, 16000, 24000, 32000, 44100, 48000}) {
        const auto found = found_in(babble(1.5, 100, rate) + reference(6, rate) + silence(1, rate),
                                    rate, samples_in(0.02, rate));
        ASSERT_EQ(found.size(), 1u) << rate;
        EXPECT_EQ(found[0].name, "6");
        EXPECT_NEAR(found[0].seconds, 1.5, 0.02) << rate;
    }
}

Sound special_information() {
    return tone({950}, 0.33) + tone({1400}, 0.33) + tone({1800}, 0.33);
}

Sound busy() {
    return tone({425}, 0.48) + silence(0.48) + tone({425}, 0.48) + silence(0.48);
}

std::shared_ptr<const SampleIndex> tones() {
    SampleIndexBuilder builder;
    const auto add = [&](const std::string& name, const Sound& sound) {
        EXPECT_EQ(builder.add(name, sound.data(), sound.size(), 8000), "") << name;
    };
    add("beep", silence(0.2) + tone({1000}, 0.6));
    add("busy", busy());
    add("dial", tone({425}, 5));
    add("ring back", tone({440, 480}, 2) + silence(4));
    add("ring", tone({425}, 1) + silence(4));
    add("special information", special_information());
    EXPECT_EQ(builder.add("short beep", tone({1000}, 0.4).data(), 3200, 8000),
              "0.40 s of sound, less than 0.50 s");
    return builder.build();
}

TEST(SampleDetectorTest, FindsTonesByFrequencyAndLength) {
    const auto index = tones();
    const struct {
        std::string name;
        Sound sound;
        double begin;  // Time before the sound in the reference.
    } cases[] = {
        {"beep", tone({1000}, 0.6), 0.2}, {"busy", busy(), 0},
        {"dial", tone({425}, 4), 0},      {"ring back", tone({440, 480}, 2), 0},
        {"ring", tone({425}, 1), 0},      {"special information", special_information(), 0},
    };
    for (const auto& each : cases) {
        for (const double gain : {-20.0, 0.0, 6.0}) {
            const Sound sound =
                babble(2, 50) + louder(each.sound, gain) + silence(0.3) + babble(1, 51);
            const auto found = found_in(mixed(sound, noise(9, 0.0005, 1)), 8000, 160, index);
            ASSERT_EQ(found.size(), 1u) << each.name << ' ' << gain;
            EXPECT_EQ(found[0].name, each.name);
            EXPECT_NEAR(found[0].seconds, 2 - each.begin, 0.05) << each.name;
        }
    }
}

TEST(SampleDetectorTest, FindsTonesInNoise) {
    const Sound sound = silence(1) + tone({1000}, 0.6) + silence(1);
    const auto found = found_in(mixed(sound, noise(2.6, 0.2 / 1.414 / 3.2, 1)), 8000, 160, tones());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].name, "beep");
}

TEST(SampleDetectorTest, TakesNoOtherToneForAReference) {
    const auto index = tones();
    EXPECT_TRUE(found_in(silence(1) + tone({1040}, 0.6) + silence(1), 8000, 160, index).empty());
    EXPECT_TRUE(found_in(silence(1) + tone({1000}, 1.5) + silence(1), 8000, 160, index).empty());
    EXPECT_TRUE(found_in(silence(1) + tone({440}, 2) + silence(1), 8000, 160, index).empty());
    EXPECT_TRUE(found_in(babble(60, 78), 8000, 160, index).empty());
}

TEST(SampleDetectorTest, FindsAReferenceAgainThatIsPlayedAgain) {
    const auto found = found_in(reference(4) + babble(1, 100) + reference(4) + silence(1));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_NEAR(found[0].seconds, 0, 0.02);
    EXPECT_NEAR(found[1].seconds, 2.7, 0.02);
}

TEST(SampleDetectorTest, FindsReferencesThatAreCutOffAtEitherEnd) {
    const auto late = found_in(babble(1, 100) + part(reference(6), 0.33, 1) + silence(1));
    ASSERT_EQ(late.size(), 1u);
    EXPECT_NEAR(late[0].seconds, 1 - 0.33 * 2.3, 0.02);
    const auto early = found_in(babble(1, 100) + part(reference(6), 0, 0.6) + babble(1, 101));
    ASSERT_EQ(early.size(), 1u);
    EXPECT_NEAR(early[0].seconds, 1, 0.02);
}

TEST(SampleDetectorTest, TellsAPositionBeforeTheFirstSampleItWasGiven) {
    const auto found = found_in(part(reference(6), 0.5, 1) + silence(1));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_NEAR(found[0].seconds, -0.5 * 2.3, 0.02);
}

TEST(SampleDetectorTest, ReportsWithinASecondOfTheBeginning) {
    for (unsigned seed = 1; seed <= 10; ++seed) {
        const auto found = found_in(babble(1, 100) + reference(seed) + silence(1));
        ASSERT_EQ(found.size(), 1u);
        EXPECT_LT(found[0].heard, 2) << seed;
    }
}

TEST(SampleDetectorTest, DoesNotDependOnHowTheSoundIsCutIntoPackets) {
    const Sound sound = babble(1, 100) + reference(3) + silence(1);
    const auto usual = found_in(sound);
    for (const std::size_t packet : {1U, 7U, 80U, 1000U, 100'000U}) {
        const auto found = found_in(sound, 8000, packet);
        ASSERT_EQ(found.size(), usual.size()) << packet;
        EXPECT_EQ(found[0].seconds, usual[0].seconds);
    }
}

TEST(SampleDetectorTest, KeepsCountOverGapsOfHours) {
    const auto index = ten_references();
    const auto samples = pcm(reference(5) + silence(1));
    SampleDetector detector(index, 8000, 1000);
    List list(8000);
    const std::uint64_t gap = 8000ull * 3600 * 30 + 1234;
    detector.skip(gap, list);
    detector.add(samples.data(), samples.size(), list);
    ASSERT_EQ(list.list.size(), 1u);
    EXPECT_NEAR(list.list[0].seconds, (1000.0 + static_cast<double>(gap)) / 8000, 0.02);
    EXPECT_EQ(detector.position(), 1000 + gap + samples.size());
}

TEST(SampleDetectorTest, FindsNothingWithoutReferences) {
    SampleIndexBuilder builder;
    EXPECT_TRUE(found_in(babble(5, 1), 8000, 160, builder.build()).empty());
}

}  // namespace

}  // namespace qv::node::analysis
