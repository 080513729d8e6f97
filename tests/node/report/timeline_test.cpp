#include "node/report/timeline.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/node/calls/node_call.h"

namespace {

using namespace qv::node;

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

TEST(TimelineTest, LongLineIsCutBetweenCharacters) {
    TimelineData data = call_of_seconds(1);
    for (std::size_t i = 0; i < TimelineData::SUBTITLE_COLUMNS; ++i) {
        data.subtitle += "\u65e5";
    }
    const std::string fits = data.subtitle.substr(0, 3 * TimelineData::SUBTITLE_COLUMNS / 2);
    EXPECT_TRUE(contains(render_timeline(data), ">" + fits + "</text>"));
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

TEST(TimelineTest, AudioIsDrawnWhereItBegan) {
    TimelineData data = call_of_seconds(5);
    data.audio_begin = 5;
    data.sides[0].gaps.push_back({8000, 1600, 10});
    const std::string svg = render_timeline(data);
    EXPECT_TRUE(contains(svg, ">10.0 s</text>"));
    EXPECT_TRUE(contains(svg, "<path d=\"M640.5 "));  // The middle.
    EXPECT_TRUE(contains(svg, "<title>gap: 0.2 s at 6.0 s, 10 packets</title>"));
}

// What the node draws of a call. Times are seconds after the golden start packet.
class TimelineOfCallTest : public qv::tests::NodeCallTest {
  protected:
    TimelineOfCallTest() {
        CallLimits limits;
        limits.sample_rate = 8000;
        watch({&timeline_}, limits);
    }

    void send_at(double seconds, const std::string& name) {
        qv::tests::Bytes datagram = qv::tests::golden(name);
        auto send_time = 3'600'000'250 + static_cast<std::int64_t>(seconds * 1e6);
        for (std::size_t i = 32; i < 40; ++i, send_time >>= 8) {
            datagram[i] = static_cast<unsigned char>(send_time & 0xFF);
        }
        send(datagram);
    }

    bool shows(const std::string& part) const { return contains(svg_, part); }

    std::string svg_;
    Timeline timeline_{[this](const std::string& name, const std::string& svg) {
        svg_ = svg;
        return FileReport{name, {}};
    }};
};

TEST_F(TimelineOfCallTest, RingingStandsBeforeTheAudio) {
    send_at(0, "call_1_start");
    send_at(10, "call_6_control");
    send_at(15, "call_2_read");
    send_at(17, "call_7_terminate");
    pass(Micros{1'000'000});
    table_->shut_down();
    EXPECT_TRUE(shows("recording on both at 0.0 s</title>"));
    EXPECT_TRUE(shows("audio activity off both; recording on both at 10.0 s</title>"));
    EXPECT_TRUE(shows("terminate at 17.0 s</title>"));
    EXPECT_TRUE(shows(">17.0 s</text>"));
    EXPECT_TRUE(shows("\"M1111.5 "));  // 15 of the 17 seconds.
}

TEST_F(TimelineOfCallTest, SilentSideIsCalledSilentAsInTheLines) {
    qv::tests::Bytes silence = qv::tests::golden("call_2_read");
    std::fill(silence.begin() + 50, silence.end(), static_cast<unsigned char>(0));
    send(silence);
    send("call_3_write");
    send("call_5_write");
    table_->shut_down();
    EXPECT_TRUE(shows("8000 Hz, silent, no gap</text>"));
    EXPECT_TRUE(shows("8000 Hz, -33 dB, no gap</text>"));
}

TEST_F(TimelineOfCallTest, OfALongLineTheReferenceIsCut) {
    std::string reference;
    for (int i = 0; i < 400; ++i) {
        reference += "\u65e5";
    }
    send_start(reference);
    table_->shut_down();
    EXPECT_TRUE(shows("\u65e5...&quot;, rule 42, not terminated (shutdown)</text>"));
}

TEST_F(TimelineOfCallTest, CallThatIsNeverAnsweredLastsAsLongAsItRang) {
    send_at(0, "call_1_start");
    send_at(30, "call_7_terminate");
    pass(Micros{1'000'000});
    table_->shut_down();
    EXPECT_TRUE(shows("terminate at 30.0 s</title>"));
}

TEST_F(TimelineOfCallTest, AudioSentBeforeTheStartPacketBeginsTheAxis) {
    send_at(1, "call_2_read");
    send_at(2, "call_1_start");
    send_at(4, "call_7_terminate");
    table_->shut_down();
    EXPECT_TRUE(shows("recording on both at 1.0 s</title>"));
    EXPECT_TRUE(shows("terminate at 3.0 s</title>"));
}

}  // namespace
