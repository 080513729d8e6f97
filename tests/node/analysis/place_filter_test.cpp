#include "node/analysis/place_filter.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace qv::node::analysis {

namespace {

using Place = SampleIndex::Place;

// "NUMBER:EVIDENCE" of each place that a filter chooses.
std::string chosen(PlaceFilter filter, const std::vector<Place>& places,
                   const SampleIndex::BitsOfPair& side) {
    std::vector<Alike> alike(places.size());
    const std::size_t count =
        filter({places.data(), places.data() + places.size()}, side, alike.data());
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += std::to_string(alike[i].place - places.data()) + ':' +
                std::to_string(alike[i].evidence) + ' ';
    }
    return text;
}

class PlaceFilterTest : public testing::TestWithParam<PlaceFilter> {};

TEST_P(PlaceFilterTest, CountsReliableBitsAndTakesTwoForEachDifferentOne) {
    const std::vector<Place> places{
        {1, 0, {0x00000000, 0x00000000}, {0xFFFFFFFF, 0xFFFFFFFF}},  // All bits agree.
        {2, 0, {0xFFFFFFFF, 0xFFFFFFFF}, {0xFFFFFFFF, 0xFFFFFFFF}},  // None does.
        {3, 0, {0x80000000, 0x00000001}, {0xF0000000, 0x0000000F}},  // 8 bits, 2 of them differ.
        {4, 0, {0x80000000, 0x00000000}, {0xF0000000, 0x0000000F}},  // 8 bits, one differs.
        {5, 0, {0x0FFFFFFF, 0xFFFFFFF0}, {0xF0000000, 0x0000000F}},  // Only other bits differ.
    };
    EXPECT_EQ(chosen(GetParam(), places, {0, 0}), "0:64 3:6 4:8 ");
    EXPECT_EQ(chosen(GetParam(), places, {0x80000000, 0}), "0:62 2:6 3:8 4:6 ");
}

TEST_P(PlaceFilterTest, ChoosesNothingOfNothing) {
    EXPECT_EQ(chosen(GetParam(), {}, {0, 0}), "");
}

INSTANTIATE_TEST_SUITE_P(ForEveryAndForThisProcessor, PlaceFilterTest,
                         testing::Values(filter_places, fastest_place_filter()));

TEST(PlaceFiltersTest, ChooseTheSamePlaces) {
    std::mt19937 random(1);
    const auto bits = [&random](std::uint32_t most) {
        return SampleIndex::BitsOfPair{static_cast<std::uint32_t>(random()) & most,
                                       static_cast<std::uint32_t>(random()) & most};
    };
    std::vector<Place> places(10'000);
    for (Place& each : places) {
        const auto few = static_cast<std::uint32_t>(random());
        each = {0, 0, bits(few), bits(few)};
    }
    const SampleIndex::BitsOfPair side = bits(0xFFFFFFFF);
    const std::string portable = chosen(filter_places, places, side);
    EXPECT_GT(portable.size(), 1000u);
    EXPECT_EQ(chosen(fastest_place_filter(), places, side), portable);
}

}  // namespace

}  // namespace qv::node::analysis
