#include "node/report/live_view.h"

#include <algorithm>

#include "tests/node/calls/node_call.h"

namespace {

using namespace qv::node;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* NO_LEVEL_7 = "\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7     --";

class LiveViewTest : public qv::tests::NodeCallTest {
  protected:
    LiveViewTest() {
        figures_.address = "127.0.0.1:40000";
        figures_.uptime = 65s;
        watch({&view_});
    }

    std::string text(std::size_t columns, std::size_t rows) {
        figures_.totals = table_->totals();
        return view_.frame(figures_, now_, {columns, rows});
    }

    // The lines of the frame, without the sequences that clear the rest of each line.
    Lines frame(std::size_t columns = 80, std::size_t rows = 24) {
        std::string rest = text(columns, rows);
        Lines lines;
        while (!rest.empty()) {
            const std::string closing = "\x1b[K";
            const std::size_t end = rest.find(closing);
            EXPECT_NE(end, std::string::npos) << rest;
            lines.push_back(rest.substr(0, end));
            rest.erase(0, end + closing.size());
            rest.erase(0, rest.rfind("\r\n", 0) == 0 ? 2 : 0);
        }
        return lines;
    }

    static std::size_t width(const std::string& line) {
        return static_cast<std::size_t>(std::count_if(line.begin(), line.end(), [](char c) {
            return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
        }));
    }

    LiveView view_;
    NodeFigures figures_;
};

TEST_F(LiveViewTest, EmptyScreenTellsTheTotals) {
    figures_.received = 1234;
    figures_.malformed = {0, 2, 3};
    figures_.overflowed = 6;
    EXPECT_EQ(frame(),
              (Lines{"quorvane-node on 127.0.0.1:40000, up 1 min 05 s   (ends with Ctrl-C)",
                     "0 calls now, 0 ended, 12 packets/s, 1,234 packets",
                     "0 lost, 0 not used, 5 malformed, 6 lost in the socket, 0 file errors", "",
                     "call             age  features originator      terminator       lost", "",
                     "features: A audio activity, D detection, R recording; small: off"}));
}

TEST_F(LiveViewTest, NarrowScreenShowsBothMetersAndTheLoss) {
    send("call_1_start");
    send("call_2_read");
    send("call_3_write");
    send("call_5_write");
    now_ += 5s;
    EXPECT_EQ(frame()[5], std::string("3b9f6a52       5.0 s  A-R A-R  ") +
                              "\u2588\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7 -49 dB  " +
                              "\u2588\u2588\u2588\u00b7\u00b7\u00b7\u00b7 -33 dB      0");
    EXPECT_EQ(width(frame()[5]), 68u);
}

TEST_F(LiveViewTest, WideScreenShowsTheWholeUuidPacketsAndReference) {
    send("call_1_start");
    send("call_2_read");
    const Lines lines = frame(200, 60);
    EXPECT_EQ(lines[4],
              "call                                         age  features originator         "
              "terminator          packets   lost              source                 reference");
    EXPECT_EQ(
        lines[5],
        std::string("3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37       0.0 s  A-R A-R  ") +
            "\u2588\u2588\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7 -49 dB  " +
            "\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7     --" +
            "         1      0              192.0.2.1:30000        \"a84b4c76e66710@192.0.2.7\"");
}

TEST_F(LiveViewTest, LevelIsThatSinceTheLastFrame) {
    send("call_1_start");
    send("call_2_read");
    frame();
    EXPECT_EQ(frame()[5], std::string("3b9f6a52       0.0 s  A-R A-R  ") + NO_LEVEL_7 + "  " +
                              NO_LEVEL_7 + "      0");
}

TEST_F(LiveViewTest, StateOfACallIsReported) {
    send_data(1, 0);
    EXPECT_EQ(frame()[5].substr(frame()[5].size() - 11), " 0  no start");
    send("call_1_start");
    send("call_7_terminate");
    EXPECT_EQ(frame()[5].substr(frame()[5].size() - 8), "  ending");
}

TEST_F(LiveViewTest, LossIsShownForTheCallAndInAll) {
    send("call_1_start");
    send_data(1, 0);
    send_data(5, 32);
    pass(300ms);
    send_data(2, 8);
    EXPECT_EQ(frame()[2], "2 lost, 1 not used, 0 malformed, 0 lost in the socket, 0 file errors");
    EXPECT_EQ(frame()[5].substr(frame()[5].size() - 7), "      2");
}

TEST_F(LiveViewTest, FileThatCannotBeWrittenIsShownAfterItsCallToo) {
    CallLimits limits;
    limits.sample_rate = 8000;
    watch({&view_}, limits);
    store_.error = "No space left on device";
    send("call_1_start");
    send("call_2_read");
    pass(50ms);
    const std::string error =
        "file error: 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav: No space left on device";
    EXPECT_EQ(frame()[2], "0 lost, 0 not used, 0 malformed, 0 lost in the socket, 1 file error");
    EXPECT_EQ(frame()[5].substr(frame()[5].size() - 12), "  file error");
    EXPECT_EQ(frame(200)[7], error);
    pass(120s);
    EXPECT_EQ(frame(200)[6], error);
}

TEST_F(LiveViewTest, CallsThatDoNotFitAreCounted) {
    for (unsigned char call = 0; call < 30; ++call) {
        send_start_of_call(call);
        now_ += 1s;
    }
    const Lines lines = frame(80, 24);
    ASSERT_EQ(lines.size(), 24u);
    EXPECT_EQ(lines[1].substr(0, 12), "30 calls now");
    EXPECT_EQ(lines[22], "and 13 more calls");
    // The oldest calls come first.
    EXPECT_EQ(lines[5].substr(14, 6), "30.0 s");
    EXPECT_EQ(lines[21].substr(14, 6), "14.0 s");
}

TEST_F(LiveViewTest, ScreenThatCallsJustFillCountsNone) {
    for (unsigned char call = 0; call < 17; ++call) {
        send_start_of_call(call);
    }
    EXPECT_EQ(frame(80, 24)[22], "");
}

TEST_F(LiveViewTest, NothingIsWiderOrHigherThanTheScreen) {
    send_start(std::string(190, 'x'));
    store_.error = std::string(300, 'e');
    send_data(1, 0);
    pass(50ms);
    for (const std::size_t columns :
         {1, 10, 40, 79, 80, 81, 123, 124, 146, 147, 166, 167, 200, 500}) {
        for (const std::size_t rows : {1, 2, 5, 8, 24}) {
            const Lines lines = frame(columns, rows);
            EXPECT_LE(lines.size(), rows);
            for (const std::string& line : lines) {
                EXPECT_LE(width(line), columns) << line;
            }
        }
    }
}

TEST_F(LiveViewTest, ReferenceCannotSteerTheTerminal) {
    send_start("\x1b[2J\r\n\xE2\x82");
    const Lines lines = frame(200, 24);
    EXPECT_NE(lines[5].find(R"("\x1b[2J\x0d\x0a\xe2\x82")"), std::string::npos) << lines[5];
}

TEST_F(LiveViewTest, ReferenceOfWideCharactersIsCutBetweenThem) {
    std::string reference;
    for (int i = 0; i < 60; ++i) {
        reference += "\u65e5";
    }
    send_start(reference);
    const auto shown = [this](std::size_t columns) {
        const std::string line = frame(columns)[5];
        return line.substr(line.find('"'));
    };
    EXPECT_EQ(shown(167), '"' + reference.substr(0, 3 * 8));  // 17 of 18 columns.
    EXPECT_EQ(shown(168), '"' + reference.substr(0, 3 * 9));
    EXPECT_EQ(shown(223), '"' + reference.substr(0, 3 * 36));
}

TEST_F(LiveViewTest, LinesAreClosedButTheLastOne) {
    const std::string all = text(80, 24);
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 6);
    EXPECT_EQ(all.substr(all.size() - 6), "off\x1b[K");
}

TEST_F(LiveViewTest, RateIsThatSinceTheLastFrame) {
    frame();
    figures_.received = 100;
    now_ += 250ms;
    EXPECT_EQ(frame()[1], "0 calls now, 0 ended, 400 packets/s, 100 packets");
}

TEST_F(LiveViewTest, FeatureLettersTellSideAndState) {
    EXPECT_EQ(feature_letters({0x0C | 0x40, 0x04}, Side::ORIGINATOR), "A-r");
    EXPECT_EQ(feature_letters({0x0C | 0x40, 0x04}, Side::TERMINATOR), "a--");
    EXPECT_EQ(feature_letters({0x30, 0x20}, Side::ORIGINATOR), "-d-");
    EXPECT_EQ(feature_letters({0x30, 0x20}, Side::TERMINATOR), "-D-");
}

TEST_F(LiveViewTest, MeterFillsWithTheLevel) {
    EXPECT_EQ(level_meter(-96, 4), "\u00b7\u00b7\u00b7\u00b7");
    EXPECT_EQ(level_meter(-60, 4), "\u00b7\u00b7\u00b7\u00b7");
    EXPECT_EQ(level_meter(-30, 4), "\u2588\u2588\u00b7\u00b7");
    EXPECT_EQ(level_meter(0, 4), "\u2588\u2588\u2588\u2588");
}

}  // namespace
