#include "node/web/call_json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/node/audio/folder_test.h"
#include "tools/address.h"

namespace qv::node::web {

namespace {

using Json = nlohmann::json;

constexpr Uuid UUID = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                       0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
constexpr Micros BEGAN{1'700'000'000'250'000};
constexpr Micros FIRST_SEEN{5'000'000};

class CallJsonTest : public tests::FolderTest {
  protected:
    CallJsonTest() {
        StartFields start;
        start.call_flags = 0x8001;
        start.rule_id = 18'446'744'073'709'551'615U;
        start.call_reference = "a \"reference\"";
        start.created_time = 11;
        start.configured_time = 22;
        facts_.start = start;
        facts_.source = tools::parse_address("192.0.2.1:30000").value();
        facts_.features = {0x0C, 0x04};
        facts_.control_packets = 3;
        begin(Side::ORIGINATOR);
        begin(Side::TERMINATOR);
    }

    void begin(Side side) { facts_.sides[index_of(side)].begun = true; }

    SideFigures& figures(Side side) { return figures_.sides[index_of(side)]; }

    // The object of the call after this time.
    Json call_after(Micros age) const {
        const CallRecord::Reading reading{figures_, std::make_shared<CallFacts>(facts_), 1};
        return Json::parse(
            call_text(facts_text(record_, facts_), record_, reading, FIRST_SEEN + age));
    }
    Json trouble_after(Micros age) const { return call_after(age).at("trouble"); }

    CallRecord::Wishes wishes_{0};
    CallRecord record_{7, UUID, BEGAN, FIRST_SEEN, wishes_};
    CallFacts facts_;
    CallFigures figures_;
};

TEST_F(CallJsonTest, ACallHasItsIdentityAndItsFacts) {
    const Json call = call_after(Micros{1'500'000});
    EXPECT_EQ(call.at("id"), 7);
    EXPECT_EQ(call.at("call_uuid"), "00010203-0405-0607-0809-0a0b0c0d0e0f");
    EXPECT_EQ(call.at("call_ref"), "a \"reference\"");
    EXPECT_EQ(call.at("source"), "192.0.2.1:30000");
    EXPECT_EQ(call.at("began"), "2023-11-14T22:13:20.250Z");
    EXPECT_EQ(call.at("seconds"), 1.5);
    EXPECT_EQ(call.at("started"), true);
    EXPECT_EQ(call.at("outbound"), true);
    EXPECT_EQ(call.at("created_time"), 11);
    EXPECT_EQ(call.at("configured_time"), 22);
    EXPECT_EQ(call.at("features"), Json::parse(R"({"supported":12,"active":4})"));
    EXPECT_EQ(call.at("control_packets"), 3);
    EXPECT_EQ(call.at("ending"), false);
}

TEST_F(CallJsonTest, ARuleIdIsATextBecausePagesCannotHoldAllNumbers) {
    EXPECT_EQ(call_after(Micros{0}).at("rule_id"), "18446744073709551615");
    facts_.start->call_flags = 0;
    EXPECT_FALSE(call_after(Micros{0}).contains("rule_id"));
}

TEST_F(CallJsonTest, ACallWithoutStartPacketHasNoReference) {
    facts_.start.reset();
    const Json call = call_after(Micros{0});
    EXPECT_EQ(call.at("started"), false);
    EXPECT_EQ(call.at("call_ref"), nullptr);
    EXPECT_EQ(call.at("features_text"), nullptr);
    EXPECT_FALSE(call.contains("outbound"));
}

TEST_F(CallJsonTest, ASideHasItsFigures) {
    SideFacts& side = facts_.sides[1];
    side.leg = 1;
    side.sample_rate = 16000;
    side.active = true;
    side.running.recording = true;
    SideFigures& terminator = figures(Side::TERMINATOR);
    terminator.seconds = 2.25;
    terminator.pauses = 6;
    terminator.stats.packets = 100;
    terminator.stats.skipped = 5;
    terminator.stats.late = 2;
    terminator.stats.duplicates = 3;
    terminator.stats.reordered = 4;
    terminator.stats.gaps = 1;
    figures(Side::ORIGINATOR).stats.skipped = 10;
    const Json call = call_after(Micros{0});
    EXPECT_EQ(call.at("sides").at("terminator"), Json::parse(R"({
        "leg": 1, "sample_rate": 16000, "rate_assumed": false, "seconds": 2.25, "packets": 100,
        "lost": 3, "late": 2, "duplicates": 3, "reordered": 4, "gaps": 1, "pauses": 6,
        "running": {"activity": false, "detection": false, "recording": true}, "active": true})"));
    EXPECT_EQ(call.at("lost_packets"), 13);
    EXPECT_EQ(call.at("late_packets"), 2);
}

TEST_F(CallJsonTest, ASideWithoutPacketsIsNull) {
    facts_.sides[0].begun = false;
    const Json sides = call_after(Micros{0}).at("sides");
    EXPECT_EQ(sides.at("originator"), nullptr);
    EXPECT_TRUE(sides.at("terminator").is_object());
}

TEST_F(CallJsonTest, ACallThatIsAsItShouldBeHasNoTrouble) {
    EXPECT_EQ(trouble_after(Micros{60'000'000}), Json::array());
}

TEST_F(CallJsonTest, AMissingStartPacketIsTroubleAfterTwoSeconds) {
    facts_.start.reset();
    EXPECT_EQ(trouble_after(Micros{1'999'999}), Json::array());
    EXPECT_EQ(trouble_after(Micros{2'000'000}), Json::parse(R"(["no_start"])"));
}

TEST_F(CallJsonTest, AMissingSideIsTroubleAfterFiveSeconds) {
    facts_.sides[1].begun = false;
    EXPECT_EQ(trouble_after(Micros{4'999'999}), Json::array());
    EXPECT_EQ(trouble_after(Micros{5'000'000}), Json::parse(R"(["one_sided"])"));
    facts_.sides[0].begun = false;
    EXPECT_EQ(trouble_after(Micros{5'000'000}), Json::array());
}

TEST_F(CallJsonTest, AllTroubleIsListed) {
    facts_.start.reset();
    facts_.sides[0].begun = false;
    facts_.failed_files.push_back({"/calls/a.wav", "No space left on device", 0, {}});
    figures_.foreign_packets = 1;
    figures(Side::TERMINATOR).stats.skipped = 2;
    figures(Side::TERMINATOR).stats.late = 1;
    EXPECT_EQ(trouble_after(Micros{60'000'000}),
              Json::parse(R"(["no_start","loss","late","one_sided","file","foreign"])"));
    EXPECT_EQ(call_after(Micros{0}).at("failed_files"),
              Json::parse(R"([{"file":"/calls/a.wav","error":"No space left on device"}])"));
}

TEST_F(CallJsonTest, ACallHasItsLevelsAndTheSamplesThatWereFound) {
    const Mark beep{Mark::Kind::SAMPLE, Side::TERMINATOR, 1.25, 0, "be\xffp"};
    EXPECT_EQ(Json::parse(heard_text(R"({"id":7})", {-23.14, std::nullopt}, {beep})),
              Json::parse(R"({"id":7,"levels":{"originator":-23.1,"terminator":null},"samples":[
                              {"call_side":"terminator","sample":"be\ufffdp","begin":1.25}]})"));
}

TEST_F(CallJsonTest, AFinishedCallHasItsEndAndItsFiles) {
    put("abc-originator.wav", "1234");
    FinishedCall call;
    call.id = 9;
    call.uuid = UUID;
    call.began = BEGAN;
    call.ended = BEGAN + Micros{2'500'000};
    call.reason = EndReason::TIMED_OUT;
    call.facts = std::make_shared<CallFacts>(facts_);
    call.file_stem = "abc";
    FileReport file;
    file.path = path("abc-originator.wav");
    call.files.push_back(file);
    const Json json = Json::parse(finished_text(call, FileFolder(folder_)));
    EXPECT_EQ(json.at("id"), 9);
    EXPECT_EQ(json.at("ended"), "2023-11-14T22:13:22.750Z");
    EXPECT_EQ(json.at("seconds"), 2.5);
    EXPECT_EQ(json.at("reason"), "timed_out");
    EXPECT_EQ(json.at("files"), Json::parse(R"([{"name":"abc-originator.wav","kind":"wav",
                                                 "bytes":4,"call_side":"originator"}])"));
    EXPECT_TRUE(json.at("sides").at("originator").is_object());
}

TEST_F(CallJsonTest, AMarkHasTheFieldsOfItsKind) {
    using Kind = Mark::Kind;
    const auto text = [](Kind kind) {
        return Json::parse(mark_text({kind, Side::TERMINATOR, 1.5, 2.5, "x"}));
    };
    EXPECT_EQ(text(Kind::ACTIVE), Json::parse(R"({"kind":"activity","call_side":"terminator",
                                                  "begin":1.5,"end":null})"));
    EXPECT_EQ(text(Kind::QUIET), Json::parse(R"({"kind":"activity","call_side":"terminator",
                                                 "begin":null,"end":1.5})"));
    EXPECT_EQ(text(Kind::SAMPLE), Json::parse(R"({"kind":"sample","call_side":"terminator",
                                                  "begin":1.5,"name":"x"})"));
    EXPECT_EQ(text(Kind::GAP), Json::parse(R"({"kind":"gap","call_side":"terminator",
                                               "begin":1.5,"end":2.5})"));
    EXPECT_EQ(text(Kind::PAUSE), Json::parse(R"({"kind":"pause","call_side":"terminator",
                                                 "begin":1.5,"end":2.5})"));
    EXPECT_EQ(text(Kind::FEATURES), Json::parse(R"({"kind":"features","begin":1.5,"text":"x"})"));
}

TEST_F(CallJsonTest, BytesThatAreNotUtf8AreReplaced) {
    EXPECT_EQ(json_string("a\"\xff\n"), "\"a\\\"\xEF\xBF\xBD\\n\"");
    facts_.start->call_reference = "\xc3(";
    EXPECT_EQ(call_after(Micros{0}).at("call_ref"), "\xEF\xBF\xBD(");
}

// The test vectors of RFC 4648, and every bit.
TEST_F(CallJsonTest, BytesBecomeBase64WithPadding) {
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(base64("foob"), "Zm9vYg==");
    EXPECT_EQ(base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(base64("\xfb\xef\xff"), "++//");
    EXPECT_EQ(base64(std::string("\0\0\0", 3)), "AAAA");
}

}  // namespace

}  // namespace qv::node::web
