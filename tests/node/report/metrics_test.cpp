#include "node/report/metrics.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <regex>
#include <set>
#include <string>

namespace qv::node {

namespace {

using media::DecodeResult;

class MetricsTest : public testing::Test {
  protected:
    void update() {
        NodeFigures figures;
        figures.totals = totals_;
        figures.malformed = malformed_;
        figures.received = received_;
        figures.overflowed = overflowed_;
        figures.calls = calls_;
        figures.open_files = open_files_;
        figures.receive_buffer = receive_buffer_;
        figures.calls_not_written = calls_not_written_;
        figures.reports = reports_;
        metrics_.update(figures, analysis_);
    }
    // Search the text that was taken last, or take it now.
    bool shows(const std::string& line) {
        told_ = told_.empty() ? metrics_.text() : told_;
        return told_.find("\n" + line + "\n") != std::string::npos;
    }
    std::uint64_t& dropped(Drop reason) {
        return totals_.dropped[static_cast<std::size_t>(reason)];
    }

    Metrics metrics_;
    Totals totals_;
    std::array<std::uint64_t, media::DECODE_RESULT_COUNT> malformed_{};
    std::uint64_t received_ = 0;
    std::uint64_t overflowed_ = 0;
    std::size_t calls_ = 0;
    std::size_t open_files_ = 0;
    std::uint64_t receive_buffer_ = 0;
    std::uint64_t calls_not_written_ = 0;
    ReportFigures reports_;
    Analyser::Figures analysis_;
    std::string told_;
};

TEST_F(MetricsTest, CountersAreThereBeforeAnythingCame) {
    EXPECT_TRUE(shows("quorvane_node_received_packets_total 0"));
    EXPECT_TRUE(shows("quorvane_node_calls 0"));
    EXPECT_TRUE(shows("quorvane_node_malformed_packets_total{reason=\"bad_magic\"} 0"));
    EXPECT_TRUE(shows("# TYPE quorvane_node_received_packets_total counter"));
}

TEST_F(MetricsTest, EachValueHasItsName) {
    received_ = 100;
    overflowed_ = 2;
    calls_ = 3;
    open_files_ = 4;
    receive_buffer_ = 5;
    calls_not_written_ = 6;
    totals_.calls_begun = 11;
    totals_.calls_ended = 12;
    totals_.calls_not_terminated = 13;
    totals_.calls_without_start = 14;
    totals_.audio_bytes = 15;
    totals_.gaps = 16;
    totals_.lost_packets = 17;
    totals_.silence_samples = 18;
    totals_.file_errors = 19;
    totals_.pauses = 20;
    totals_.assumed_rates = 21;
    totals_.rate_changes = 22;
    update();
    for (const char* line :
         {"received_packets_total 100", "socket_dropped_packets_total 2", "calls 3", "open_files 4",
          "receive_buffer_bytes 5", "calls_not_written_total 6", "calls_begun_total 11",
          "calls_ended_total 12", "calls_not_terminated_total 13", "calls_without_start_total 14",
          "audio_bytes_total 15", "gaps_total 16", "skipped_packets_total 17",
          "silence_samples_total 18", "file_errors_total 19", "pauses_total 20",
          "assumed_rates_total 21", "rate_changes_total 22"}) {
        EXPECT_TRUE(shows(std::string("quorvane_node_") + line)) << line;
    }
}

TEST_F(MetricsTest, PacketsAreCountedByType) {
    totals_.packets = {1, 2, 3, 4};
    update();
    EXPECT_TRUE(shows("quorvane_node_packets_total{type=\"start\"} 1"));
    EXPECT_TRUE(shows("quorvane_node_packets_total{type=\"terminate\"} 2"));
    EXPECT_TRUE(shows("quorvane_node_packets_total{type=\"data\"} 3"));
    EXPECT_TRUE(shows("quorvane_node_packets_total{type=\"control\"} 4"));
}

TEST_F(MetricsTest, UnusedAndMalformedPacketsAreCountedByReason) {
    dropped(Drop::TOO_MANY_CALLS) = 5;
    dropped(Drop::IMPLAUSIBLE) = 6;
    malformed_[static_cast<std::size_t>(DecodeResult::TOO_SHORT)] = 7;
    malformed_[static_cast<std::size_t>(DecodeResult::UNTERMINATED_CALL_REFERENCE)] = 8;
    update();
    EXPECT_TRUE(shows("quorvane_node_unused_packets_total{reason=\"too_many_calls\"} 5"));
    EXPECT_TRUE(shows("quorvane_node_unused_packets_total{reason=\"implausible\"} 6"));
    EXPECT_TRUE(shows("quorvane_node_malformed_packets_total{reason=\"too_short\"} 7"));
    EXPECT_TRUE(
        shows("quorvane_node_malformed_packets_total{reason=\"unterminated_call_reference\"} 8"));
}

TEST_F(MetricsTest, AnUpdateShowsTheNewValuesAndNotTheirSum) {
    received_ = 10;
    calls_ = 4;
    update();
    received_ = 12;
    calls_ = 1;
    update();
    EXPECT_TRUE(shows("quorvane_node_received_packets_total 12"));
    EXPECT_TRUE(shows("quorvane_node_calls 1"));
}

TEST_F(MetricsTest, TheProgramIsNamed) {
    EXPECT_TRUE(shows("quorvane_node_build_info{version=\"" QUORVANE_VERSION "\"} 1"));
}

TEST_F(MetricsTest, ReasonsAreLabelsInSnakeCase) {
    shows("");
    const std::regex reason("reason=\"([^\"]*)\"");
    const std::regex snake_case("[a-z]+(_[a-z]+)*");
    std::set<std::string> seen;
    for (std::sregex_iterator one(told_.begin(), told_.end(), reason), end; one != end; ++one) {
        EXPECT_TRUE(std::regex_match((*one)[1].str(), snake_case)) << (*one)[1];
        seen.insert((*one)[1]);
    }
    EXPECT_EQ(seen.size(), DROP_COUNT + media::DECODE_RESULT_COUNT - 1);
    EXPECT_EQ(seen.count("unknown"), 0u);
}

// Returns the value of a figure without labels, or nullopt if there is none.
double value_in(const std::string& text, const std::string& name) {
    std::smatch found;
    return std::regex_search(text, found, std::regex("\n" + name + " (\\S+)")) ? std::stod(found[1])
                                                                               : -1;
}

TEST_F(MetricsTest, TheProcessHasItsUsualFigures) {
    shows("");
    const auto now = static_cast<double>(std::time(nullptr));
    EXPECT_GT(value_in(told_, "process_cpu_seconds_total"), 0);
    EXPECT_LT(value_in(told_, "process_cpu_seconds_total"), 600);
    EXPECT_GT(value_in(told_, "process_resident_memory_bytes"), 1e6);
    EXPECT_GT(value_in(told_, "process_virtual_memory_bytes"),
              value_in(told_, "process_resident_memory_bytes"));
    EXPECT_NEAR(value_in(told_, "process_start_time_seconds"), now, 600);
    EXPECT_GE(value_in(told_, "process_threads"), 1);
    EXPECT_EQ(value_in(told_, "process_max_fds"), sysconf(_SC_OPEN_MAX));
}

TEST_F(MetricsTest, OpenDescriptorsAreCounted) {
    const double before = value_in(metrics_.text(), "process_open_fds");
    const std::array<int, 3> more = {dup(0), dup(0), dup(0)};
    const double after = value_in(metrics_.text(), "process_open_fds");
    for (const int descriptor : more) {
        close(descriptor);
    }
    EXPECT_GE(before, 3);
    EXPECT_EQ(after - before, 3);
}

TEST_F(MetricsTest, ReportsAreCountedByWhatBecameOfThem) {
    reports_ = {5, 2, 1, {}};
    update();
    EXPECT_TRUE(shows("quorvane_node_reports_total{result=\"sent\"} 5"));
    EXPECT_TRUE(shows("quorvane_node_reports_total{result=\"failed\"} 2"));
    EXPECT_TRUE(shows("quorvane_node_reports_total{result=\"not_allowed\"} 1"));
}

TEST_F(MetricsTest, AnalysisIsCountedBySampleAndFeature) {
    analysis_.activity_sides = 3;
    analysis_.detection_sides = 2;
    analysis_.recorded_sides = 4;
    analysis_.samples = 500;
    analysis_.onsets = 7;
    analysis_.skipped = 160;
    analysis_.found = {{"greeting", 5}, {"(others)", 1}, {"a\xff\"\n", 2}};
    update();
    update();
    EXPECT_TRUE(shows("quorvane_node_running_sides{feature=\"audio_activity\"} 3"));
    EXPECT_TRUE(shows("quorvane_node_running_sides{feature=\"sample_detection\"} 2"));
    EXPECT_TRUE(shows("quorvane_node_running_sides{feature=\"recording\"} 4"));
    EXPECT_TRUE(shows("quorvane_node_sample_references 500"));
    EXPECT_TRUE(shows("quorvane_node_activity_onsets_total 7"));
    EXPECT_TRUE(shows("quorvane_node_analysis_skipped_samples_total 160"));
    EXPECT_TRUE(shows("quorvane_node_samples_found_total{sample=\"greeting\"} 5"));
    EXPECT_TRUE(shows("quorvane_node_samples_found_total{sample=\"(others)\"} 1"));
    EXPECT_TRUE(shows("quorvane_node_samples_found_total{sample=\"a\uFFFD\\\"\\n\"} 2"));
}

}  // namespace

}  // namespace qv::node
