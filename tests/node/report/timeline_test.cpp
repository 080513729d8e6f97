#include "node/report/timeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "node/report/text.h"
#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

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
    const std::string svg = render_timeline(data);
    const std::size_t end = svg.find("...</text>");
    ASSERT_NE(end, std::string::npos);
    const std::size_t begin = svg.rfind('>', end) + 1;
    EXPECT_EQ((end - begin) % 3, 0u);
    EXPECT_GT(end - begin, 150u);
    EXPECT_EQ(svg.substr(begin, end - begin), data.subtitle.substr(0, end - begin));
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

// A picture as a reader sees it whose font is DejaVu Sans, a wide one: where its texts, upright
// lines and marks are.
class SeenPicture {
  public:
    struct Box {
        double left;
        double top;
        double right;
        double bottom;
        std::string words;
    };

    explicit SeenPicture(const std::string& svg) {
        static const std::regex text(
            "<text x=\"([0-9.-]+)\" y=\"([0-9.-]+)\" font-size=\"([0-9.]+)\" fill=\"[^\"]*\""
            "( font-weight=\"600\")?(?: text-anchor=\"(\\w+)\")?>([^<]*)</text>");
        for (const auto& found : all(svg, text, "<text")) {
            const double size = std::stod(found[3]);
            const double extent = width_of(found[6]) * size * (!found[4].empty() ? 1.15 : 1.0);
            const double x = std::stod(found[1]);
            const double left = found[5] == "end"      ? x - extent
                                : found[5] == "middle" ? x - extent / 2
                                                       : x;
            const double base = std::stod(found[2]);
            texts.push_back(
                {left, base - 0.75 * size, left + extent, base + 0.22 * size, found[6]});
        }
        static const std::regex line(
            "<line x1=\"([0-9.-]+)\" y1=\"([0-9.-]+)\" x2=\"\\1\" y2=\"([0-9.-]+)\"");
        for (const auto& found : all(svg, line, "<line")) {
            const double x = std::stod(found[1]);
            marks.push_back({x, std::stod(found[2]), x, std::stod(found[3]), "line"});
        }
        static const std::regex circle("<path d=\"M([0-9.-]+) ([0-9.-]+)a3 3");
        for (const auto& found : all(svg, circle, "<path")) {
            const double x = std::stod(found[1]);
            const double y = std::stod(found[2]);
            marks.push_back({x, y - 3, x + 6, y + 3, "circle"});
        }
        static const std::regex flag("<path d=\"M([0-9.-]+) ([0-9.-]+)h7");
        for (const auto& found : all(svg, flag, "<path")) {
            const double x = std::stod(found[1]);
            const double y = std::stod(found[2]);
            marks.push_back({x, y, x + 7, y + 6, "flag"});
        }
        static const std::regex sheet("viewBox=\"0 0 ([0-9.]+) ([0-9.]+)\"");
        for (const auto& found : all(svg, sheet, "<svg")) {
            width = std::stod(found[1]);
            height = std::stod(found[2]);
        }
    }

    // Every text is on the sheet, and is covered by no other text and by no mark.
    void check() const {
        for (std::size_t i = 0; i < texts.size(); ++i) {
            const Box& text = texts[i];
            EXPECT_GE(text.left, 0) << text.words;
            EXPECT_LE(text.right, width) << text.words;
            EXPECT_LE(text.bottom, height) << text.words;
            for (std::size_t j = i + 1; j < texts.size(); ++j) {
                EXPECT_FALSE(overlap(text, texts[j])) << text.words << " / " << texts[j].words;
            }
            for (const Box& mark : marks) {
                EXPECT_FALSE(overlap(text, mark)) << text.words << " / " << mark.words;
            }
        }
    }

    std::size_t count(const std::string& words) const {
        return static_cast<std::size_t>(
            std::count_if(texts.begin(), texts.end(),
                          [&](const Box& text) { return contains(text.words, words); }));
    }

    std::vector<Box> texts;
    std::vector<Box> marks;
    double width = 0;
    double height = 0;

  private:
    // One element a line; the parts of those that match, the whole first.
    static std::vector<std::vector<std::string>> all(const std::string& svg,
                                                     const std::regex& pattern,
                                                     const std::string& element) {
        std::vector<std::vector<std::string>> found;
        std::istringstream lines(svg);
        for (std::string line; std::getline(lines, line);) {
            std::smatch parts;
            if (line.rfind(element, 0) == 0 && line.size() < 2000 &&
                std::regex_search(line, parts, pattern)) {
                found.emplace_back(parts.begin(), parts.end());
            }
        }
        return found;
    }

    static bool overlap(const Box& one, const Box& two) {
        return one.left < two.right && two.left < one.right && one.top < two.bottom &&
               two.top < one.bottom;
    }

    // In sizes of the font.
    static double width_of(std::string words) {
        static constexpr std::array<int, 95> thousandths = {
            318,  401, 460, 838, 636, 950, 780, 275, 390, 390, 500, 838, 318, 361, 318, 337,
            636,  636, 636, 636, 636, 636, 636, 636, 636, 636, 337, 337, 838, 838, 838, 531,
            1000, 684, 686, 698, 770, 632, 575, 775, 752, 295, 295, 656, 557, 863, 748, 787,
            603,  787, 695, 635, 611, 732, 684, 989, 685, 611, 685, 390, 337, 390, 838, 500,
            500,  613, 635, 550, 635, 615, 352, 635, 634, 278, 278, 579, 278, 974, 634, 612,
            635,  635, 411, 521, 392, 634, 592, 818, 592, 592, 525, 636, 337, 636, 838};
        words = std::regex_replace(words, std::regex("&quot;"), "\"");
        double sum = 0;
        for (const char c : words) {
            sum += c >= ' ' && c <= '~' ? thousandths[static_cast<std::size_t>(c - ' ')] : 600;
        }
        return sum / 1000;
    }
};

TEST(TimelineLabelsTest, FiveChangesWithinASecondAreAllReadable) {
    TimelineData data = call_of_seconds(60);
    data.events.push_back({0, "start: audio activity on both; detection off both"});
    for (int i = 0; i < 5; ++i) {
        data.events.push_back(
            {30 + 0.2 * i, "audio activity on originator, off terminator; recording on both"});
    }
    data.events.push_back({60, "terminate"});
    const SeenPicture picture(render_timeline(data));
    picture.check();
    EXPECT_EQ(picture.count("audio activity on originator, off terminator; recording on both"), 5u);
}

TEST(TimelineLabelsTest, ChangesAnywhereAndOfAnyLengthCoverNothing) {
    for (const int changes : {1, 20, 100, 500}) {
        for (const char letter : {'i', 'W'}) {
            TimelineData data = call_of_seconds(20);
            for (int i = 0; i < changes; ++i) {
                data.events.push_back(
                    {20.0 * i / changes,
                     "change " + std::to_string(i) + ' ' +
                         std::string(static_cast<std::size_t>(i * 37 % 90), letter)});
            }
            data.events.push_back({20, "terminate"});
            data.sides[0].gaps.push_back({0, 160, 1});
            data.sides[0].summary = std::string(60, letter);
            SeenPicture(render_timeline(data)).check();
        }
    }
}

TEST(TimelineLabelsTest, ChangesForWhichThereIsNoRoomAreCounted) {
    TimelineData data = call_of_seconds(60);
    for (int i = 0; i < 30; ++i) {
        data.events.push_back({30 + 0.01 * i, "change " + std::to_string(i)});
    }
    const std::string svg = render_timeline(data);
    const SeenPicture picture(svg);
    picture.check();
    EXPECT_EQ(picture.count("change "), 12u);
    EXPECT_EQ(picture.count("+18"), 1u);
    EXPECT_TRUE(contains(svg, "change 12 at 30.1 s; change 13 at 30.1 s;"));
}

TEST(TimelineLabelsTest, SamplesStandUnderTheirSideByName) {
    TimelineData data = call_of_seconds(60);
    for (std::uint64_t i = 0; i < 5; ++i) {
        data.sides[1].samples.push_back({80'000 + 800 * i, "greeting", 0.75});
    }
    data.sides[0].samples.push_back({479'000, "bye\x1b", 1});
    data.events.push_back({10, "audio activity on both"});
    const std::string svg = render_timeline(data);
    const SeenPicture picture(svg);
    picture.check();
    EXPECT_EQ(picture.count("&quot;greeting&quot;"), 5u);
    EXPECT_EQ(picture.count("&quot;bye\\x1b&quot;"), 1u);
    EXPECT_EQ(picture.count("recognised sample"), 1u);
    EXPECT_TRUE(contains(svg, "<title>sample &quot;greeting&quot; at 10.0 s, score 0.75</title>"));
}

TEST(TimelineTest, ActivityIsABandAndSoIsWhereItWasLookedFor) {
    TimelineData data = call_of_seconds(10);
    EXPECT_FALSE(contains(render_timeline(data), "audio activity"));
    data.sides[0].heard.push_back({0, 40'000, 0});
    data.sides[0].active.push_back({8000, 12'000, 0});
    const std::string svg = render_timeline(data);
    EXPECT_TRUE(contains(svg, "<title>looked for audio activity: 5.0 s at 0.0 s</title>"));
    EXPECT_TRUE(contains(svg, "<title>audio activity: 1.5 s at 1.0 s</title>"));
    EXPECT_TRUE(contains(svg, "x=\"147.2\""));  // A tenth of the way.
    EXPECT_TRUE(contains(svg, "width=\"184.8\""));
    SeenPicture(svg).check();
}

TEST(TimelineTest, DateAndClockAreThoseOfTheZone) {
    setenv("TZ", "XST-5:30", 1);
    tzset();
    TimelineData data = call_of_seconds(100);
    data.wall_begin = Micros{1'767'225'550'500'000};  // 2025-12-31, 23:59:10.5 UTC.
    data.places = {"from 192.0.2.1:5", "report node 192.0.2.2:6"};
    const SeenPicture picture(render_timeline(data));
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(picture.count("2026-01-01 05:29:10 to 05:30:50 (UTC+05:30), from 192.0.2.1:5, "
                            "report node 192.0.2.2:6"),
              1u);
    EXPECT_EQ(picture.count("05:29:40"), 1u);  // Under the axis.
    picture.check();
}

TEST(TimelineTest, EndOnTheNextDayHasItsDate) {
    TimelineData data = call_of_seconds(100);
    setenv("TZ", "UTC", 1);
    tzset();
    data.wall_begin = Micros{1'767'225'550'500'000};
    const SeenPicture picture(render_timeline(data));
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(picture.count("2025-12-31 23:59:10 to 2026-01-01 00:00:50 (UTC+00:00)"), 1u);
}

TEST(TimelineTest, ForgedLengthHasNoClock) {
    TimelineData data = call_of_seconds(1);
    data.wall_begin = Micros{1'767'225'550'500'000};
    data.events.push_back({9e12, "control"});
    const SeenPicture picture(render_timeline(data));
    EXPECT_EQ(picture.count("UTC"), 0u);
    picture.check();
}

// What the node draws of a call. Times are seconds after the golden start packet.
class TimelineOfCallTest : public tests::NodeCallTest {
  protected:
    TimelineOfCallTest() {
        CallLimits limits;
        limits.sample_rate = 8000;
        watch({&timeline_, &catcher_}, limits);
    }

    void send_data_at(double seconds, unsigned char number, unsigned char offset) {
        tests::Bytes datagram = tests::golden("call_2_read");
        datagram[40] = number;
        datagram[44] = offset;
        send_timed(seconds, datagram);
    }

    void send_at(double seconds, const std::string& name) {
        send_timed(seconds, tests::golden(name));
    }

    void send_timed(double seconds, tests::Bytes datagram) {
        auto send_time = 3'600'000'250 + static_cast<std::int64_t>(seconds * 1e6);
        for (std::size_t i = 32; i < 40; ++i, send_time >>= 8) {
            datagram[i] = static_cast<unsigned char>(send_time & 0xFF);
        }
        send(datagram);
    }

    bool shows(const std::string& part) const { return contains(svg_, part); }

    struct Catcher : CallListener {
        std::unique_ptr<CallListener> begin_call(Call& begun) override {
            call = &begun;
            return nullptr;
        }
        Call* call = nullptr;
    };

    std::string svg_;
    Catcher catcher_;
    Timeline timeline_{[this](const std::string& name, std::string svg) {
        svg_ = std::move(svg);
        return std::make_shared<PendingFile>(PendingFile{{name, {}}, true});
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
    tests::Bytes silence = tests::golden("call_2_read");
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

TEST_F(TimelineOfCallTest, ReportNodeAndSenderAreNamed) {
    tests::Bytes datagram = tests::golden("call_1_start");
    datagram[7] |= 0x40;
    const std::array<unsigned char, 6> node = {192, 0, 2, 9, 0x9C, 0xA4};
    std::copy(node.begin(), node.end(), datagram.begin() + 72);
    send(datagram);
    table_->shut_down();
    EXPECT_TRUE(shows(", from 192.0.2.1:30000, report node 192.0.2.9:40100</text>"));
}

TEST_F(TimelineOfCallTest, AxisBeginsAtTheTimeOfTheFirstPacket) {
    setenv("TZ", "UTC", 1);
    tzset();
    report_as_of(Micros{1'767'225'550'500'000});
    send_at(10, "call_2_read");
    report_as_of(Micros{1'767'225'560'500'000});
    send_at(5, "call_1_start");  // Was sent before.
    table_->shut_down();
    report_as_of(std::nullopt);
    unsetenv("TZ");
    tzset();
    EXPECT_TRUE(shows(">2025-12-31 23:59:05 to 23:59:10 (UTC+00:00), from"));
}

// Positions of an analysis do not count the sender's pauses, the outline does.
TEST_F(TimelineOfCallTest, ActivityAndSamplesStandWhereTheySound) {
    send("call_1_start");
    for (unsigned char i = 0; i < 20; ++i) {  // 8 samples each, a second apart: pauses.
        send_data_at(i * 1.0, static_cast<unsigned char>(i + 1), static_cast<unsigned char>(8 * i));
    }
    Call& call = *catcher_.call;
    call.report_activity(Side::ORIGINATOR, {true, 16, 24});
    call.report_activity(Side::ORIGINATOR, {false, 40, 48});
    call.report_sample(Side::ORIGINATOR, {"beep", 32, 48, 0.5});
    call.report_sample(Side::ORIGINATOR, {"early", -32, 48, 0.5});
    call.report_activity(Side::ORIGINATOR, {true, 96, 100});  // Goes on to the end.
    table_->shut_down();
    EXPECT_TRUE(shows("<title>audio activity: 2.0 s at 2.0 s</title>"));
    EXPECT_TRUE(shows("<title>audio activity: 7.0 s at 12.0 s</title>"));
    EXPECT_TRUE(shows("<title>sample &quot;beep&quot; at 4.0 s, score 0.50</title>"));
    EXPECT_TRUE(shows("<title>sample &quot;early&quot; at 0.0 s, score 0.50</title>"));
}

TEST_F(TimelineOfCallTest, ActivityOfALongCallIsDrawnToItsEnd) {
    send("call_1_start");
    send("call_2_read");
    const Call& call = *catcher_.call;
    const auto drawn = timeline_.begin_call(*catcher_.call);
    for (int i = 0; i < 60; ++i) {
        drawn->gap(call, Side::ORIGINATOR, Gap{2, 1, 8, 480'000, 480'000, 8});  // A minute.
    }
    for (std::uint64_t i = 0; i < 9000; ++i) {
        drawn->activity(call, Side::ORIGINATOR, {true, i * 3200, i * 3200});
        drawn->activity(call, Side::ORIGINATOR, {false, i * 3200 + 1600, i * 3200 + 1600});
    }
    drawn->summing_up(call, EndReason::SHUTDOWN);
    EXPECT_TRUE(shows("<title>audio activity: 0.2 s at 59:58.8</title>"));
    EXPECT_LT(svg_.size(), 900'000u);
}

}  // namespace

}  // namespace qv::node
