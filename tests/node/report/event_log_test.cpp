#include "node/report/event_log.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

// Puts T in the place of each value that is a time.
std::string with_times_as_t(std::string line) {
    static const std::string TIME = R"("0000-00-00T00:00:00.000000Z")";
    const auto fits = [](char expected, char present) {
        return expected == '0' ? present >= '0' && present <= '9' : expected == present;
    };
    for (std::size_t at = line.find('"'); at != std::string::npos; at = line.find('"', at + 1)) {
        if (line.size() - at >= TIME.size() &&
            std::equal(TIME.begin(), TIME.end(), line.begin() + static_cast<std::ptrdiff_t>(at),
                       fits)) {
            line.replace(at, TIME.size(), R"("T")");
        }
    }
    return line;
}

class EventLogTest : public tests::NodeCallTest {
  protected:
    EventLogTest() { watch_with(false); }

    void watch_with(bool every_packet, const CallLimits& limits = {}) {
        log_ = std::make_unique<EventLog>(
            [this](const char* lines, std::size_t size) { return put(lines, size); }, every_packet);
        watch({log_.get()}, limits);
    }

    // As if the disk had room for this many bytes.
    std::size_t put(const char* lines, std::size_t size) {
        const std::size_t written = std::min(size, room_);
        out_.append(lines, written);
        room_ -= written;
        return written;
    }

    void forget() {
        log_->flush();
        out_.clear();
    }

    // The lines so far, with T in place of the time of writing.
    std::vector<std::string> lines() const {
        log_->flush();
        std::istringstream text(out_);
        std::vector<std::string> all;
        for (std::string line; std::getline(text, line);) {
            all.push_back(with_times_as_t(line));
        }
        return all;
    }

    // Returns the only event of that kind.
    Json event(const std::string& kind) const {
        Json found;
        for (const std::string& line : lines()) {
            if (line.find(R"({"event":")" + kind + R"(",)") == 0) {
                EXPECT_TRUE(found.is_null()) << "more than one: " << kind;
                found = Json::parse(line);
            }
        }
        EXPECT_FALSE(found.is_null()) << "none: " << kind;
        return found;
    }

    std::string kinds() const {
        std::string all;
        for (const std::string& line : lines()) {
            all += (all.empty() ? "" : " ") + Json::parse(line)["event"].get<std::string>();
        }
        return all;
    }

    std::string out_;
    std::size_t room_ = std::string::npos;
    std::unique_ptr<EventLog> log_;
};

TEST_F(EventLogTest, StartHasEveryFieldOfThePacket) {
    send("call_1_start");
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0],
              R"({"event":"start","time":"T","call_key":"0x34ec6ca7460833a0",)"
              R"("call_reference":"a84b4c76e66710@192.0.2.7","call_reference_length":25,)"
              R"("call_uuid":"3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37",)"
              R"("configured_clock":3600000000,"configured_time":1767225600125000,)"
              R"("created_time":1767225600123456,"features":{"active":204,"supported":204},)"
              R"("late":false,"leg_word":32768,"magic":16711935,"outbound":false,)"
              R"("packet_type":"start","protocol_version":1,"report_node":"0.0.0.0:0",)"
              R"("report_node_address":"0.0.0.0","report_node_given":false,"report_node_port":0,)"
              R"("rule_id":"42","rule_id_given":true,"send_time":3600000250,)"
              R"("source":"192.0.2.1:30000"})");
}

TEST_F(EventLogTest, LargeNumbersAreTextAndFlagsAreSplit) {
    send("start_outbound_full");
    const Json start = event("start");
    EXPECT_EQ(start["rule_id"], "1234567890123456789");
    EXPECT_EQ(start["report_node"], "192.0.2.10:5060");
    EXPECT_EQ(start["report_node_address"], "192.0.2.10");
    EXPECT_EQ(start["report_node_port"], 5060);
    EXPECT_EQ(start["leg_word"], 0xC001);
    EXPECT_EQ(start["outbound"], true);
    EXPECT_EQ(start["report_node_given"], true);
}

TEST_F(EventLogTest, ControlHasTheUpdateAndWhatIsInEffect) {
    send("start_outbound_full");
    forget();
    tests::Bytes update = tests::golden("call_6_control");
    const tests::Bytes start = tests::golden("start_outbound_full");
    std::copy(start.begin() + 8, start.begin() + 32, update.begin() + 8);
    send(update);
    EXPECT_EQ(lines()[0],
              R"({"event":"control","time":"T","call_key":"0x54c9051d9db29633",)"
              R"("call_uuid":"c2d8e1f4-7a06-45b3-a190-9c3d5e7f2b68",)"
              R"("features":{"active":192,"supported":204},)"
              R"("features_in_effect":{"active":192,"supported":220},)"
              R"("leg_word":128,"magic":16711935,"packet_type":"control","protocol_version":1,)"
              R"("send_time":3600021900,)"
              R"("source":"192.0.2.1:30000"})");
}

TEST_F(EventLogTest, TerminateHasItsSendTime) {
    send("call_1_start");
    forget();
    send("call_7_terminate");
    EXPECT_EQ(lines()[0], R"({"event":"terminate","time":"T","call_key":"0x34ec6ca7460833a0",)"
                          R"("call_uuid":"3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37","leg_word":0,)"
                          R"("magic":16711935,"packet_type":"terminate","protocol_version":1,)"
                          R"("send_time":3600022600,)"
                          R"("source":"192.0.2.1:30000"})");
}

TEST_F(EventLogTest, DataPacketsAreEventsOnlyWhenAskedFor) {
    send_call();
    EXPECT_EQ(kinds(), "start control terminate end");
}

TEST_F(EventLogTest, DataTellsLegAndSideInWordsToo) {
    watch_with(true);
    send("call_3_write");
    EXPECT_EQ(lines()[0],
              R"({"event":"data","time":"T","call_key":"0x34ec6ca7460833a0",)"
              R"("call_side":"terminator","call_uuid":"3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37",)"
              R"("leg":1,"leg_word":32769,"magic":16711935,"packet_type":"data",)"
              R"("protocol_version":1,"sample_count":8,"sample_offset":0,"send_time":3600020390,)"
              R"("sequence_number":1,)"
              R"("source":"192.0.2.1:30000"})");
}

TEST_F(EventLogTest, PauseTellsHowLongItWasAndWhere) {
    CallLimits limits;
    limits.sample_rate = 8000;
    watch_with(false, limits);
    send("call_2_read");
    pass(1s);
    tests::Bytes later = tests::golden("call_4_read");
    const unsigned char send_time[] = {0x7e, 0x39, 0xa3, 0xd6};  // One second later.
    std::copy(std::begin(send_time), std::end(send_time), later.begin() + 32);
    send(later);
    pass(1s);
    EXPECT_EQ(lines().back(),
              R"({"event":"pause","time":"T","call_key":"0x34ec6ca7460833a0",)"
              R"("call_side":"originator","call_uuid":"3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37",)"
              R"("leg":0,"position":8,"samples":8000,)"
              R"("source":"192.0.2.1:30000"})");
}

TEST_F(EventLogTest, GapTellsWhatIsMissingAndWhere) {
    send_data(1, 0);
    send_data(4, 24);
    pass(300ms);
    const Json gap = event("gap");
    EXPECT_EQ(gap["call_side"], "originator");
    EXPECT_EQ(gap["leg"], 0);
    EXPECT_EQ(gap["sequence_number"], 2);
    EXPECT_EQ(gap["lost_packets"], 2);
    EXPECT_EQ(gap["sample_offset"], 8);
    EXPECT_EQ(gap["missing_samples"], 16);
    EXPECT_EQ(gap["filled_samples"], 16);
    EXPECT_EQ(gap["position"], 8);
}

TEST_F(EventLogTest, PacketAfterItsPlaceWasGivenUpIsLate) {
    send_data(1, 0);
    send_data(3, 16);
    pass(300ms);
    send_data(2, 8);
    const Json late = event("late");
    EXPECT_EQ(late["sequence_number"], 2);
    EXPECT_EQ(late["sample_offset"], 8);
    EXPECT_EQ(late["call_side"], "originator");
}

TEST_F(EventLogTest, StartAfterOtherPacketsIsLate) {
    send_data(1, 0);
    send("call_1_start");
    EXPECT_EQ(event("start")["late"], true);
}

TEST_F(EventLogTest, EndSumsUpTheCall) {
    send_call("call_4_read");
    Json end = event("end");
    EXPECT_EQ(end["reason"], "terminated");
    EXPECT_EQ(end["start_seen"], true);
    EXPECT_EQ(end["control_packets"], 1);
    EXPECT_EQ(end["files"], Json::parse(R"([
        {"path": "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-originator.wav", "error": "",
         "dropped_samples": 0, "sample_rate": 8000, "channels": 1, "samples": 8,
         "seconds": 0.001, "sha256": "",
         "resampled_from": 0, "not_converted": ""},
        {"path": "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37-terminator.wav", "error": "",
         "dropped_samples": 0, "sample_rate": 8000, "channels": 1, "samples": 16,
         "seconds": 0.002, "sha256": "",
         "resampled_from": 0, "not_converted": ""}])"));
    Json side = end["sides"]["terminator"];
    EXPECT_NEAR(side["level_db"].get<double>(), -33.32, 0.01);
    EXPECT_NEAR(side["peak_db"].get<double>(), -30.31, 0.01);
    side.erase("level_db");
    side.erase("peak_db");
    EXPECT_EQ(side, Json::parse(R"({"leg": 1, "sample_rate": 8000, "sample_rate_assumed": true,
        "rate_changes": 0,
        "packets": 2, "bytes": 32, "samples": 16, "silence_samples": 0, "unfilled_samples": 0,
        "pauses": 0, "gaps": 0, "lost_packets": 0, "late_packets": 0, "reordered_packets": 0,
        "duplicated_packets": 0, "implausible_packets": 0, "joined_at": 0})"));
}

TEST_F(EventLogTest, SideThatNeverCameIsLeftOutOfTheEnd) {
    send("call_2_read");
    pass(120s);
    EXPECT_EQ(event("end")["reason"], "timed_out");
    EXPECT_EQ(event("end")["start_seen"], false);
    EXPECT_TRUE(event("end")["sides"].contains("originator"));
    EXPECT_FALSE(event("end")["sides"].contains("terminator"));
}

TEST_F(EventLogTest, FailedFileIsReportedOnceAndAgainAtTheEnd) {
    store_.error = "No space left on device";
    send_call();
    EXPECT_EQ(kinds(), "start control terminate file_error file_error end");
    EXPECT_EQ(event("end")["files"][0]["error"], "No space left on device");
}

TEST_F(EventLogTest, ReferenceThatIsNoUtf8IsReplaced) {
    send_start("caf\xE9\x01\"");
    EXPECT_EQ(event("start")["call_reference"], "caf\xEF\xBF\xBD\x01\"");
    EXPECT_EQ(event("start")["call_reference_length"], 7);
}

TEST_F(EventLogTest, NoControlCharacterIsWrittenAsItIs) {
    send_start("\x1b[2J\n\x7f");
    log_->flush();
    EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 1);
    EXPECT_EQ(out_.find('\x1b'), std::string::npos);
}

TEST_F(EventLogTest, WhatConcernsNoCallIsReported) {
    log_->listening("127.0.0.1:40000");
    log_->malformed(media::DecodeResult::BAD_MAGIC, 12, "192.0.2.7:9");
    log_->overflow(7);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           R"({"event":"listening","time":"T","address":"127.0.0.1:40000"})",
                           R"({"event":"malformed","time":"T","reason":"bad magic","size":12,)"
                           R"("source":"192.0.2.7:9"})",
                           R"({"event":"overflow","time":"T","packets":7})"}));
}

TEST_F(EventLogTest, WhatAFullDiskDidNotTakeIsWrittenWhenThereIsRoom) {
    EXPECT_TRUE(log_->flush());
    room_ = 100;
    for (std::uint64_t packets = 1; packets <= 3; ++packets) {
        log_->overflow(packets);
    }
    EXPECT_FALSE(log_->flush());
    EXPECT_FALSE(log_->flush());
    // One line is written, another is cut off.
    EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 1);
    EXPECT_EQ(log_->waiting(), 2u);
    room_ = std::string::npos;
    out_ += '\n';
    EXPECT_TRUE(log_->flush());
    EXPECT_EQ(log_->waiting(), 0u);
    EXPECT_EQ(log_->dropped(), 0u);
    ASSERT_EQ(lines().size(), 4u);
    EXPECT_EQ(lines()[2], R"({"event":"overflow","time":"T","packets":2})");
    EXPECT_EQ(lines()[3], R"({"event":"overflow","time":"T","packets":3})");
}

TEST_F(EventLogTest, EventsBeyondAMegabyteThatWaitsAreCountedAndReportedOnce) {
    room_ = 0;
    constexpr std::uint64_t EVENTS = 20'000;
    for (std::uint64_t event = 0; event < EVENTS; ++event) {
        log_->overflow(1);
    }
    EXPECT_FALSE(log_->flush());
    EXPECT_EQ(log_->dropped() + log_->waiting(), EVENTS);
    EXPECT_LT(log_->waiting(), EVENTS);
    room_ = std::string::npos;
    log_->overflow(7);
    const std::uint64_t dropped = log_->dropped();
    EXPECT_EQ(event("events_lost")["events"], dropped);
    log_->overflow(8);
    EXPECT_EQ(event("events_lost")["events"], dropped);
    EXPECT_EQ(lines().back(), R"({"event":"overflow","time":"T","packets":8})");
}

TEST_F(EventLogTest, LossIsReportedWhereTheEventsAreMissing) {
    room_ = 0;
    for (int event = 0; event < 20'000; ++event) {
        log_->overflow(1);
    }
    room_ = 1000;
    EXPECT_FALSE(log_->flush());
    log_->overflow(7);
    room_ = std::string::npos;
    out_ += '\n';
    const std::vector<std::string> all = lines();
    EXPECT_EQ(Json::parse(all[all.size() - 2])["event"], "events_lost");
    EXPECT_EQ(all.back(), R"({"event":"overflow","time":"T","packets":7})");
}

}  // namespace

}  // namespace qv::node
