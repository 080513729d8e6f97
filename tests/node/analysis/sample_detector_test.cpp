#include "node/analysis/sample_detector.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/node/analysis/sounds.h"

namespace {

using namespace qv::node::analysis;
using namespace qv::test;

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

std::vector<Found> found_in(const Sound& sound, int rate = 8000, std::size_t packet = 160) {
    static const auto index = ten_references();
    const auto samples = pcm(sound);
    SampleDetector detector(index, rate);
    List list(rate);
    for (std::size_t at = 0; at < samples.size(); at += packet) {
        detector.add(samples.data() + at, std::min(packet, samples.size() - at), list);
    }
    return list.list;
}

TEST(sample_detector, finds_every_reference_once_and_where_it_begins) {
    for (unsigned seed = 1; seed <= 10; ++seed) {
        const Sound before = babble(2.123, 100 + seed);
        const auto found = found_in(before + reference(seed) + babble(2, 200 + seed));
        ASSERT_EQ(found.size(), 1u) << seed;
        EXPECT_EQ(found[0].name, std::to_string(seed));
        EXPECT_NEAR(found[0].seconds, 2.123, 0.02);
        EXPECT_GT(found[0].score, 0.7);
    }
}

TEST(sample_detector, finds_nothing_in_other_sound) {
    EXPECT_TRUE(found_in(babble(60, 77)).empty());
    EXPECT_TRUE(found_in(noise(20, 0.1, 5)).empty());
    EXPECT_TRUE(found_in(silence(20)).empty());
}

TEST(sample_detector, finds_references_at_every_rate_of_the_side) {
    for (const int rate : {8000, 11025, 16000, 24000, 32000, 44100, 48000}) {
        const auto found = found_in(babble(1.5, 100, rate) + reference(6, rate) + silence(1, rate),
                                    rate, samples_in(0.02, rate));
        ASSERT_EQ(found.size(), 1u) << rate;
        EXPECT_EQ(found[0].name, "6");
        EXPECT_NEAR(found[0].seconds, 1.5, 0.02) << rate;
    }
}

}  // namespace
