#include "node/report/live_view.h"

#include <algorithm>

#include "node/report/call_watch.h"
#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* NO_LEVEL_7 = "\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7\u00b7     --";

class LiveViewTest : public tests::NodeCallTest {
  protected:
    LiveViewTest() {
        figures_.address = "127.0.0.1:40000";
        figures_.uptime = 65s;
        watch({&calls_, &catcher_});
    }

    void update() {
        AllCalls calls;
        calls.add(std::make_shared<std::vector<CallSnapshot>>(calls_.take_snapshots()));
        view_.update(std::move(calls));
    }

    std::string text(std::size_t columns, std::size_t rows) {
        figures_.totals = table_->totals();
        if (!std::exchange(pressed_, false)) {
            update();
        }
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

    // Letters, and U D P N H E for up, down, page up and down, home and end, R for Enter, X for
    // Escape, B for Backspace.
    // Keys act on the calls of the latest snapshot. The next frame shows the same calls.
    void press(const std::string& keys) {
        if (!std::exchange(pressed_, true)) {
            update();
        }
        for (const char key : keys) {
            const std::size_t kind = std::string("?UDPNHERXB").find(key);
            view_.press(kind == std::string::npos ? Key{Key::Kind::CHARACTER, key}
                                                  : Key{static_cast<Key::Kind>(kind)});
        }
    }
    void begin_calls(unsigned char count) {
        for (unsigned char call = 0; call < count; ++call) {
            send_start_of_call(call);
            now_ += 1s;
        }
    }
    // The age of the call in that row, in seconds.
    static std::string age(const std::string& row) {
        const std::size_t end = row.find(" s  ");
        const std::size_t begin = row.rfind(' ', end - 1);
        return row.substr(begin + 1, end - begin - 1);
    }
    // The row of the selected call, without the sequences around it.
    std::string selected() {
        for (const std::string& line : frame()) {
            if (line.rfind("\x1b[7m", 0) == 0) {
                return line.substr(4, line.rfind("\x1b[0m") - 4);
            }
        }
        return {};
    }

    struct Catcher : CallListener {
        std::unique_ptr<CallListener> begin_call(Call& begun) override {
            call = &begun;
            return nullptr;
        }
        Call* call = nullptr;
    };

    LiveView view_;
    CallWatch calls_{[this](const std::string& error) { view_.report_file_error(error); }};
    Catcher catcher_;
    NodeFigures figures_;
    bool pressed_ = false;  // Since the latest frame.
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
    EXPECT_EQ(frame()[5].substr(0, 30), "3b9f6a52       0.0 s  no start");
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
    watch({&calls_}, limits);
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
         {1U, 10U, 40U, 79U, 80U, 81U, 123U, 124U, 146U, 147U, 166U, 167U, 200U, 500U}) {
        for (const std::size_t rows : {1U, 2U, 5U, 8U, 24U}) {
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

TEST_F(LiveViewTest, KeysReachEveryCall) {
    view_.use_keys(true);
    begin_calls(59);
    Lines lines = frame(80, 24);
    EXPECT_EQ(age(lines[5]), "59.0");
    EXPECT_EQ(lines[22], "calls 1 to 17 of 59");
    press("N");
    EXPECT_EQ(age(selected()), "43.0");  // The 17th.
    press("N");
    EXPECT_EQ(age(selected()), "26.0");
    EXPECT_EQ(frame()[22], "calls 18 to 34 of 59");
    press("NN");
    EXPECT_EQ(age(selected()), "1.0");
    EXPECT_EQ(frame()[22], "calls 43 to 59 of 59");
    press("P");
    EXPECT_EQ(age(selected()), "18.0");
    press("H");
    EXPECT_EQ(age(selected()), "59.0");
    EXPECT_EQ(frame()[22], "calls 1 to 17 of 59");
    press("DDU");
    EXPECT_EQ(age(selected()), "58.0");
    press("E");
    EXPECT_EQ(age(selected()), "1.0");
    press("HX");
    EXPECT_EQ(selected(), "");
}

TEST_F(LiveViewTest, CallsWithTroubleComeFirst) {
    view_.use_keys(true);
    send_start_of_call(1);
    now_ += 1s;
    send_data(1, 0);  // Without a start packet.
    now_ += 1s;
    EXPECT_EQ(age(frame()[5]), "1.0");
    press("a");
    EXPECT_EQ(age(frame()[5]), "2.0");
    press("t");
    EXPECT_EQ(age(frame()[5]), "1.0");
    press("l");
    EXPECT_EQ(age(frame()[5]), "2.0");
    send_data(5, 32);
    pass(300ms);
    EXPECT_EQ(age(frame()[5]), "1.3");
    EXPECT_EQ(frame()[3].substr(0, 8), "by loss;");
}

TEST_F(LiveViewTest, SelectedCallStaysSelectedWhenTheOrderChanges) {
    view_.use_keys(true);
    begin_calls(30);
    press("DDD");
    EXPECT_EQ(age(selected()), "28.0");
    send_data(1, 0);  // A call without a start packet takes the first place.
    EXPECT_EQ(age(selected()), "28.0");
    tests::Bytes end = tests::golden("call_7_terminate");
    end[31] = 2;
    send(end);
    pass(1s);
    EXPECT_EQ(age(selected()), "28.0");  // The next one, a second later.
}

TEST_F(LiveViewTest, FilterLeavesOutWhatDoesNotMatch) {
    view_.use_keys(true);
    begin_calls(30);
    send_data(1, 0);
    press("/NO s");  // N is a page down elsewhere.
    view_.press(Key{Key::Kind::CHARACTER, 't'});
    EXPECT_EQ(frame()[3].substr(0, 13), "filter: O st_");
    press("BBBB");
    for (const char letter : std::string("no START")) {
        view_.press(Key{Key::Kind::CHARACTER, letter});
    }
    press("R");
    EXPECT_EQ(frame()[22 - 16], "calls 1 to 1 of 1 that match the filter");
    press("X");
    EXPECT_EQ(frame()[22], "calls 1 to 17 of 31");
    press("/");
    for (const char letter : std::string("nothing")) {
        view_.press(Key{Key::Kind::CHARACTER, letter});
    }
    EXPECT_EQ(frame()[5], "0 calls match the filter");
    press("X");
    EXPECT_EQ(frame()[22], "calls 1 to 17 of 31");
    EXPECT_FALSE(view_.take_quit());
}

TEST_F(LiveViewTest, OneCallIsShownWhole) {
    view_.use_keys(true);
    CallLimits limits;
    limits.sample_rate = 8000;
    watch({&calls_, &catcher_}, limits);
    send("call_1_start");
    send("call_2_read");
    catcher_.call->report_activity(Side::ORIGINATOR, {true, 0, 8});
    catcher_.call->report_sample(Side::ORIGINATOR, {"gre\x1b[2Jeting", 4000, 8, 0.5});
    press("R");
    const Lines lines = frame();
    EXPECT_EQ(lines[4], "call 3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37  ");
    EXPECT_EQ(lines[5],
              "from 192.0.2.1:30000, age 0.0 s, 0 control packets, 0 packets of strangers");
    EXPECT_EQ(lines[6], "inbound, rule 42");
    EXPECT_EQ(lines[7], "reference \"a84b4c76e66710@192.0.2.7\"");
    EXPECT_EQ(lines[8], "audio activity on both; recording on both");
    EXPECT_EQ(lines[10], "originator: leg 0, 8000 Hz, 0.0 s, recording");
    EXPECT_NE(lines[11].find("-49 dB  \u25cf active"), std::string::npos) << lines[11];
    EXPECT_EQ(lines[12], "  1 packet, 0 lost in 0 gaps");
    EXPECT_EQ(lines[14], "terminator: no audio");
    EXPECT_EQ(lines[15], "sample \"gre\\x1b[2Jeting\" on originator at 0.500 s");
    press("X");
    EXPECT_EQ(frame()[4].substr(0, 4), "call");
    EXPECT_NE(frame()[5].find("3b9f6a52"), std::string::npos);
}

TEST_F(LiveViewTest, WholeCallEndsWithItsCallAndScrollsOnASmallScreen) {
    view_.use_keys(true);
    send("call_1_start");
    send("call_2_read");
    press("R");
    EXPECT_EQ(frame(80, 6).size(), 6u);
    EXPECT_EQ(frame(80, 6)[4].substr(0, 5), "call ");
    press("E");
    EXPECT_EQ(frame(80, 6)[5], "terminator: no audio");
    send("call_7_terminate");
    pass(1s);
    EXPECT_EQ(frame()[5], "0 calls");
}

TEST_F(LiveViewTest, ActivityAndTheLatestSampleStandInTheRow) {
    send("call_1_start");
    send("call_2_read");
    const auto count = [this](const std::string& part) {
        return frame()[5].find(part) != std::string::npos;
    };
    EXPECT_FALSE(count("\u25cf"));
    catcher_.call->report_activity(Side::TERMINATOR, {true, 0, 8});
    EXPECT_TRUE(count(" \u25cf\u00b7"));
    catcher_.call->report_sample(Side::TERMINATOR, {"beep", 0, 8, 0.5});
    EXPECT_TRUE(count("      0  \"beep\""));
    catcher_.call->report_activity(Side::TERMINATOR, {false, 4, 8});
    EXPECT_FALSE(count("\u25cf"));
}

TEST_F(LiveViewTest, ColoursOnlyWhereTheyAreWanted) {
    send_data(1, 0);
    EXPECT_EQ(frame()[5].find('\x1b'), std::string::npos);
    view_.use_colour(true);
    EXPECT_EQ(frame()[5].substr(0, 5), "\x1b[33m");
    store_.error = "No space left on device";
    send_data(2, 8);
    CallLimits limits;
    limits.sample_rate = 8000;
    watch({&calls_, &catcher_}, limits);
    send("call_1_start");
    EXPECT_EQ(frame()[5].find('\x1b'), std::string::npos);  // No trouble, no colour.
    send("call_2_read");
    pass(50ms);
    EXPECT_EQ(frame()[5].substr(0, 5), "\x1b[31m");
}

TEST_F(LiveViewTest, OnlyTheKeyQAsksForTheEnd) {
    press("tlajk XB");
    EXPECT_FALSE(view_.take_quit());
    press("/q");
    EXPECT_FALSE(view_.take_quit());
    press("Rq");
    EXPECT_TRUE(view_.take_quit());
}

}  // namespace

}  // namespace qv::node
