#include "node/analysis/sample_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bitset>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/node/analysis/sounds.h"

namespace qv::node::analysis {

namespace {

using namespace tests;

std::vector<Landmark> landmarks_of(const Sound& sound) {
    Fingerprint fingerprint;
    std::vector<Landmark> list;
    for (std::size_t at = 0; at + HOP <= sound.size(); at += HOP) {
        fingerprint.add(sound.data() + at);
        list.insert(list.end(), fingerprint.landmarks(),
                    fingerprint.landmarks() + fingerprint.landmark_count());
    }
    return list;
}

std::shared_ptr<const SampleIndex> copies_of(const Sound& sound, std::size_t count) {
    SampleIndexBuilder builder;
    for (std::size_t i = 0; i < count; ++i) {
        EXPECT_EQ(builder.add(std::to_string(i), sound.data(), sound.size(), 8000), "");
    }
    return builder.build();
}

std::size_t count(const SampleIndex::Places& places) {
    return static_cast<std::size_t>(places.end - places.begin);
}

TEST(SampleIndexTest, KeepsLandmarksOfAllReferencesAlike) {
    const Sound sound = babble(1.5, 3);
    const auto index = copies_of(sound, 100);
    std::vector<int> kept(100);
    for (const Landmark& each : landmarks_of(sound)) {
        const SampleIndex::Places places = index->places(each);
        EXPECT_LE(count(places), SampleIndex::MOST_PLACES);
        std::for_each(places.begin, places.end,
                      [&kept](const SampleIndex::Place& place) { ++kept[place.reference]; });
    }
    const auto [least, most] = std::minmax_element(kept.begin(), kept.end());
    EXPECT_GT(*least, 0);
    EXPECT_LT(*most, 3 * *least);
}

int reliable_bits(const SampleIndex::Place& place) {
    return static_cast<int>(std::bitset<32>(place.mask[0]).count() +
                            std::bitset<32>(place.mask[1]).count());
}

// Returns the reliable bits of all places that an index has for the landmarks of a sound.
std::vector<int> reliable_bits_of(const SampleIndex& index, const Sound& sound) {
    std::vector<int> list;
    for (const Landmark& each : landmarks_of(sound)) {
        const SampleIndex::Places places = index.places(each);
        std::transform(places.begin, places.end, std::back_inserter(list), reliable_bits);
    }
    return list;
}

// A sound whose first part is faint beside the rest, so that few of its bits are reliable.
Sound faint(const Sound& sound) {
    return louder(sound, -30) + babble(0.5, 7);
}

TEST(SampleIndexTest, LeavesOutPlacesWithFewReliableBits) {
    const Sound sound = babble(3, 3);
    const std::vector<int> list = reliable_bits_of(*copies_of(faint(sound), 1), sound);
    ASSERT_GT(list.size(), 20u);
    EXPECT_GE(*std::min_element(list.begin(), list.end()), SampleIndex::LEAST_RELIABLE);
}

TEST(SampleIndexTest, PrefersReliablePlacesIfThereAreTooMany) {
    const Sound sound = babble(1, 3);
    SampleIndexBuilder builder;
    for (int i = 0; i < 30; ++i) {
        const Sound each = i % 2 == 0 ? sound : faint(sound);
        ASSERT_EQ(builder.add(std::to_string(i), each.data(), each.size(), 8000), "");
    }
    const auto index = builder.build();
    int clear = 0;
    int all = 0;
    for (const Landmark& each : landmarks_of(sound)) {
        const SampleIndex::Places places = index->places(each);
        clear += static_cast<int>(std::count_if(
            places.begin, places.end,
            [](const SampleIndex::Place& place) { return place.reference % 2 == 0; }));
        all += static_cast<int>(count(places));
    }
    EXPECT_GT(clear, all * 9 / 10);
}

TEST(SampleIndexTest, ReturnsPlacesOnlyForAboutTheSameContrast) {
    const Sound sound = babble(1.5, 3);
    const auto index = copies_of(sound, 1);
    std::size_t same = 0;
    std::size_t near = 0;
    std::size_t far = 0;
    for (Landmark each : landmarks_of(sound)) {
        same += count(index->places(each)) > 0 ? 1 : 0;
        each.contrast += 3;
        near += count(index->places(each)) > 0 ? 1 : 0;
        each.contrast += each.contrast > 0 ? -40.0F : 40.0F;
        far += count(index->places(each)) > 0 ? 1 : 0;
    }
    EXPECT_GT(same, 20u);
    EXPECT_EQ(near, same);
    EXPECT_LT(far, same / 4);
}

}  // namespace

}  // namespace qv::node::analysis
