#include "node/report/sidecar.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "node/report/text.h"
#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
namespace fs = std::filesystem;

constexpr const char* NAME = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37.json";

// Says what an analysis would.
class Hearing : public CallListener {
  public:
    std::unique_ptr<CallListener> begin_call(Call& call) override {
        call_ = &call;
        return nullptr;
    }
    void file_failed(const Call& /*call*/, const FileReport& file) override {
        failures += file.path + ": " + file.error + '\n';
    }
    void ended(const Call& call, EndReason /*reason*/) override { sidecar = call.sidecar(); }
    Call& call() { return *call_; }

    std::string failures;
    std::string sidecar;  // At the end of the call.

  private:
    Call* call_ = nullptr;
};

class SidecarTest : public tests::NodeCallTest {
  protected:
    SidecarTest() {
        std::string pattern = fs::temp_directory_path() / "quorvane-node-XXXXXX";
        folder_ = mkdtemp(pattern.data());
        sidecar_ =
            std::make_unique<Sidecar>(tasks_, Sidecar::Options{folder_, false, true},
                                      [this](const std::string& name) { saved_.push_back(name); });
        watch({sidecar_.get(), &hearing_});
        // 2026-01-31T23:59:59.123456Z
        report_as_of(Micros{1'769'903'999'123'456});
    }
    ~SidecarTest() override {
        report_as_of(std::nullopt);
        fs::remove_all(folder_);
    }

    // Waits for the file of a call that has ended.
    json written(const std::string& name = NAME) {
        EXPECT_TRUE(tasks_.wait(std::chrono::steady_clock::now() + 30s));
        table_->report_ends();
        EXPECT_EQ(table_->completing(), 0u);
        std::ifstream file(folder_ + '/' + name);
        return file ? json::parse(file) : json();
    }

    std::string folder_;
    TaskThread tasks_;
    std::vector<std::string> saved_;
    std::unique_ptr<Sidecar> sidecar_;
    Hearing hearing_;
};

TEST_F(SidecarTest, SaysWhoAndWhen) {
    send("call_1_start");
    now_ += 1500ms;
    send("call_2_read");
    send("call_3_write");
    send("call_7_terminate");
    pass(1s);
    const json sidecar = written();
    EXPECT_EQ(sidecar["sidecar_version"], 1);
    EXPECT_EQ(sidecar["program"], "quorvane-node");
    EXPECT_EQ(sidecar["call_uuid"], "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37");
    EXPECT_EQ(sidecar["call_key"], "0x34ec6ca7460833a0");
    EXPECT_EQ(sidecar["source"], "192.0.2.1:30000");
    EXPECT_EQ(sidecar["begin"], "2026-01-31T23:59:59.123Z");
    EXPECT_EQ(sidecar["end"], "2026-02-01T00:00:00.623Z");
    EXPECT_EQ(sidecar["call_reference"], "a84b4c76e66710@192.0.2.7");
    EXPECT_EQ(sidecar["rule_id"], "42");
    EXPECT_EQ(sidecar["reason"], "terminated");
    EXPECT_EQ(sidecar["start_seen"], true);
    EXPECT_EQ(saved_, std::vector<std::string>{NAME});
    EXPECT_EQ(hearing_.failures, "");
}

TEST_F(SidecarTest, SidesBeginWhenTheirFirstSampleWasDue) {
    send_call();
    const json sidecar = written();
    // The start packet was sent at 3600.000250 s, the first audio at 3600.020250 s.
    EXPECT_EQ(sidecar["sides"]["originator"]["begin"], "2026-01-31T23:59:59.143Z");
    EXPECT_EQ(sidecar["sides"]["originator"]["samples"], 16);
    EXPECT_EQ(sidecar["sides"]["originator"]["seconds"], 0.002);
    EXPECT_EQ(sidecar["sides"]["originator"]["sample_rate_assumed"], true);
    EXPECT_EQ(sidecar["sides"].size(), 2u);
}

TEST_F(SidecarTest, FeaturesHaveThePlaceFromWhichTheyWereInEffect) {
    send_call();
    const json features = written()["features"];
    ASSERT_EQ(features.size(), 2u);
    EXPECT_EQ(features[0]["time"], "2026-01-31T23:59:59.123Z");
    EXPECT_EQ(features[0]["features"], json({{"supported", 204}, {"active", 204}}));
    EXPECT_EQ(features[1]["time"], "2026-01-31T23:59:59.145Z");
    EXPECT_EQ(features[1]["features"], json({{"supported", 204}, {"active", 192}}));
    EXPECT_EQ(features[1]["positions"], json({{"originator", 16}, {"terminator", 16}}));
}

TEST_F(SidecarTest, FilesAreThoseOfTheCall) {
    send_call();
    const json files = written()["files"];
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0]["name"], "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav");
    EXPECT_EQ(files[1]["error"], "");
    EXPECT_FALSE(files[0].contains("path"));
}

TEST_F(SidecarTest, DetectionsAreListedByTheirSides) {
    send("call_1_start");
    send("call_2_read");
    send("call_3_write");
    hearing_.call().report_activity(Side::ORIGINATOR, {true, 2, 8});
    hearing_.call().report_activity(Side::ORIGINATOR, {false, 5, 8});
    hearing_.call().report_activity(Side::TERMINATOR, {true, 4, 8});
    hearing_.call().report_sample(Side::TERMINATOR, {"busy", -3, 8, 0.75});
    hearing_.call().report_skipped(Side::TERMINATOR, 12);
    send("call_7_terminate");
    pass(1s);
    const json sides = written()["sides"];
    EXPECT_EQ(sides["originator"]["activity"], json::parse(R"([{"begin": 2, "end": 5}])"));
    // It went on until the end.
    EXPECT_EQ(sides["terminator"]["activity"], json::parse(R"([{"begin": 4, "end": 8}])"));
    EXPECT_EQ(sides["terminator"]["sample"],
              json::parse(R"([{"sample": "busy", "position": -3, "score": 0.75}])"));
    EXPECT_EQ(sides["originator"]["sample"], json::array());
    EXPECT_EQ(sides["terminator"]["analysis_skipped"], 12);
}

TEST_F(SidecarTest, ListsAreBoundedAndSayHowManyEntriesAreMissing) {
    send("call_1_start");
    send("call_2_read");
    for (int i = 0; i < 5003; ++i) {
        hearing_.call().report_sample(Side::ORIGINATOR, {"busy", i, 8, 1});
    }
    send("call_7_terminate");
    pass(1s);
    const json side = written()["sides"]["originator"];
    EXPECT_EQ(side["sample"].size(), 5000u);
    EXPECT_EQ(side["left_out"], json({{"rate_change", 0}, {"activity", 0}, {"sample", 3}}));
}

TEST_F(SidecarTest, ListsOfAllCallsTogetherAreBounded) {
    send("call_1_start");
    send("call_2_read");
    std::vector<std::unique_ptr<CallListener>> described;
    const auto describe = [&] {
        described.push_back(sidecar_->begin_call(hearing_.call()));
        for (std::int64_t i = 0; i < 5000; ++i) {
            described.back()->sample_found(hearing_.call(), Side::ORIGINATOR, {"busy", i, 8, 1});
        }
    };
    const auto left_out = [&](std::size_t which) {
        described[which]->summing_up(hearing_.call(), EndReason::TERMINATED);
        const json count = written()["sides"]["originator"]["left_out"]["sample"];
        fs::remove(folder_ + '/' + NAME);
        return count.get<int>();
    };
    for (int call = 0; call < 201; ++call) {
        describe();
    }
    EXPECT_EQ(left_out(0), 0);  // Its room is free again.
    EXPECT_EQ(left_out(200), 5000);
    describe();
    EXPECT_EQ(left_out(201), 0);
}

TEST_F(SidecarTest, RateChangesThatAreNotListedAreCounted) {
    send("call_1_start");
    send("call_2_read");
    Call& call = hearing_.call();
    const auto described = sidecar_->begin_call(call);
    for (std::uint64_t i = 0; i < 5002; ++i) {
        described->rate_changed(call, Side::ORIGINATOR, {i, 8000, 16000});
    }
    described->summing_up(call, EndReason::TERMINATED);
    const json side = written()["sides"]["originator"];
    EXPECT_EQ(side["rate_change"].size(), 5000u);
    EXPECT_EQ(side["left_out"]["rate_change"], 2);
}

TEST_F(SidecarTest, CallWithoutStartPacketHasNoReference) {
    send("call_2_read");
    table_->shut_down();
    const json sidecar = written();
    EXPECT_EQ(sidecar["start_seen"], false);
    EXPECT_EQ(sidecar["reason"], "shutdown");
    EXPECT_TRUE(sidecar["call_reference"].is_null() && sidecar["rule_id"].is_null());
    EXPECT_EQ(sidecar["features"], json::array());
}

TEST_F(SidecarTest, ReferenceThatIsNotUtf8IsStillValidJson) {
    send_start("caf\xE9");
    send("call_7_terminate");
    pass(1s);
    EXPECT_EQ(written()["call_reference"], "caf\uFFFD");
}

TEST_F(SidecarTest, CallEndsWhenTheFileIsWritten) {
    tasks_.add([] { std::this_thread::sleep_for(20ms); });
    send_call();
    EXPECT_EQ(table_->completing(), 1u);
    EXPECT_EQ(written()["reason"], "terminated");
}

TEST_F(SidecarTest, FileWhoseNameIsTakenGetsANumber) {
    std::ofstream(folder_ + '/' + NAME) << "somebody else's";
    send_call();
    const json numbered = written("3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-2.json");
    EXPECT_EQ(numbered["reason"], "terminated");
    EXPECT_EQ(hearing_.sidecar, folder_ + "/3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-2.json");
    EXPECT_EQ(hearing_.failures, "");
}

TEST_F(SidecarTest, FileThatCannotBeWrittenIsReported) {
    fs::remove_all(folder_);
    send_call();
    EXPECT_TRUE(tasks_.wait(std::chrono::steady_clock::now() + 30s));
    table_->report_ends();
    EXPECT_EQ(hearing_.failures, folder_ + '/' + NAME + ": No such file or directory\n");
    EXPECT_EQ(hearing_.sidecar, "");
}

TEST_F(SidecarTest, FileThatIsGivenUpIsReported) {
    tasks_.add([] { std::this_thread::sleep_for(20ms); });
    send_call();
    tasks_.abandon();
    table_->report_ends();
    EXPECT_EQ(table_->completing(), 0u);
    EXPECT_EQ(hearing_.failures,
              folder_ + '/' + NAME + ": the program ended before it was written\n");
}

}  // namespace

}  // namespace qv::node
