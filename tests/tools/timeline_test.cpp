#include "tools/node/timeline.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace qv::tools::node;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TimelineData call_of_seconds(std::uint64_t seconds) {
    TimelineData data;
    data.title = "title";
    const std::vector<std::int16_t> second(8000, 5000);
    for (TimelineData::SideTrace& side : data.sides) {
        side.sample_rate = 8000;
        for (std::uint64_t i = 0; i < seconds; ++i) {
            side.outline.add(second.data(), second.size());
        }
    }
    return data;
}

TEST(TimelineTest, AxisFitsShortAndLongCalls) {
    EXPECT_TRUE(contains(render_timeline(call_of_seconds(5)), ">2.5 s</text>"));
    EXPECT_TRUE(contains(render_timeline(call_of_seconds(7200)), ">1:30:00</text>"));
}

TEST(TimelineTest, GapsLatePartsPausesAndEventsAreDrawn) {
    TimelineData data = call_of_seconds(10);
    data.sides[0].gaps.push_back({8000, 1600, 10});
    data.sides[0].late.push_back(16000);
    data.sides[1].pauses.push_back({24000, 8000, 0});
    data.events.push_back({0, "start: no features"});
    data.events.push_back({10, "terminate"});
    const std::string svg = render_timeline(data);
    EXPECT_TRUE(contains(svg, "<title>gap: 0.2 s at 1.0 s, 10 packets</title>"));
    EXPECT_TRUE(contains(svg, "<title>came too late, at 2.0 s</title>"));
    EXPECT_TRUE(contains(svg, "<title>pause of the sender: 1.0 s at 3.0 s</title>"));
    EXPECT_TRUE(contains(svg, ">start: no features</text>"));
    EXPECT_TRUE(contains(svg, ">terminate</text>"));
}

TEST(TimelineTest, SilenceIsMarked) {
    TimelineData data = call_of_seconds(5);
    EXPECT_FALSE(contains(render_timeline(data), "<title>silence</title>"));
    data.sides[0].outline.add_silence(40000);
    EXPECT_TRUE(contains(render_timeline(data), "<title>silence</title>"));
}

TEST(TimelineTest, ForeignTextIsEscaped) {
    TimelineData data = call_of_seconds(1);
    data.subtitle = "reference \"<script>&\"";
    EXPECT_TRUE(contains(render_timeline(data), "&quot;&lt;script&gt;&amp;&quot;"));
}

TEST(TimelineTest, ThousandsOfGapsMakeASmallPicture) {
    TimelineData data = call_of_seconds(7200);
    for (std::uint64_t i = 0; i < TimelineData::MAX_MARKS; ++i) {
        data.sides[0].gaps.push_back({i * 28000, 160, 1});
    }
    EXPECT_LT(render_timeline(data).size(), 400'000u);
}

TEST(TimelineTest, CallWithoutAudioIsDrawn) {
    EXPECT_TRUE(contains(render_timeline(TimelineData{}), "</svg>"));
}

}  // namespace
