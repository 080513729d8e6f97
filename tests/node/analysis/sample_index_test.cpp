#include "node/analysis/sample_index.h"

#include <gtest/gtest.h>

#include <algorithm>
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
        EXPECT_LT(count(places), 500u);
        std::for_each(places.begin, places.end,
                      [&kept](const SampleIndex::Place& place) { ++kept[place.reference]; });
    }
    const auto [least, most] = std::minmax_element(kept.begin(), kept.end());
    EXPECT_GT(*least, 0);
    EXPECT_LT(*most, 3 * *least);
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
