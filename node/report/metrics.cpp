#include "node/report/metrics.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <string>

#include "node/report/process_metrics.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

using prometheus::Counter;
using prometheus::Gauge;

constexpr std::array<const char*, 4> TYPE_NAMES = {"start", "terminate", "data", "control"};

constexpr std::array<const char*, 3> RUNNING_NAMES = {"audio_activity", "sample_detection",
                                                      "recording"};
constexpr std::array<const char*, 4> REPORT_RESULTS = {"sent", "failed", "not_allowed", "too_many"};
constexpr std::array<const char*, 2> NATS_RESULTS = {"sent", "lost"};

constexpr const char* label_of(media::DecodeResult result) {
    switch (result) {
        case media::DecodeResult::OK:
            return "ok";
        case media::DecodeResult::TOO_SHORT:
            return "too_short";
        case media::DecodeResult::TOO_LONG:
            return "too_long";
        case media::DecodeResult::BAD_MAGIC:
            return "bad_magic";
        case media::DecodeResult::UNKNOWN_VERSION:
            return "unknown_version";
        case media::DecodeResult::UNKNOWN_TYPE:
            return "unknown_type";
        case media::DecodeResult::WRONG_LENGTH:
            return "wrong_length";
        case media::DecodeResult::TOO_MANY_SAMPLES:
            return "too_many_samples";
        case media::DecodeResult::NO_CALL_REFERENCE:
            return "no_call_reference";
        case media::DecodeResult::UNTERMINATED_CALL_REFERENCE:
            return "unterminated_call_reference";
    }
    return "unknown";
}

void set(Counter& counter, std::uint64_t value) {
    counter.Increment(static_cast<double>(value) - counter.Value());
}

}  // namespace

class Metrics::Impl {
  public:
    Impl() {
        add_families();
        add_build_info();
    }

    // The counters that differ only in a label.
    void add_families() {
        for (std::size_t i = 0; i < running.size(); ++i) {
            running[i] = &prometheus::BuildGauge()
                              .Name("quorvane_node_running_sides")
                              .Help("Current call sides on which this feature runs")
                              .Register(*registry)
                              .Add({{"feature", RUNNING_NAMES[i]}});
        }
        for (std::size_t i = 0; i < packets.size(); ++i) {
            packets[i] = &labelled("packets_total", "Packets of each type", "type", TYPE_NAMES[i]);
        }
        for (std::size_t i = 0; i < reports.size(); ++i) {
            reports[i] = &labelled("reports_total", "Reports to the report nodes of calls",
                                   "result", REPORT_RESULTS[i]);
        }
        for (std::size_t i = 0; i < NATS_RESULTS.size(); ++i) {
            nats_events[i] = &labelled("nats_events_total", "Events for NATS", "result",
                                       i == 0 ? "stored" : "lost");
            nats_chunks[i] = &labelled("nats_audio_chunks_total", "Chunks of audio for NATS",
                                       "result", NATS_RESULTS[i]);
        }
        for (std::size_t i = 0; i < DROP_COUNT; ++i) {
            dropped[i] = &labelled("unused_packets_total", "Packets that were not used", "reason",
                                   name_of(static_cast<Drop>(i)));
        }
        for (std::size_t i = 1; i < media::DECODE_RESULT_COUNT; ++i) {
            malformed[i] = &labelled("malformed_packets_total", "Datagrams that are not packets",
                                     "reason", label_of(static_cast<media::DecodeResult>(i)));
        }
    }

    void add_build_info() {
        prometheus::BuildGauge()
            .Name("quorvane_node_build_info")
            .Help("Always 1; the label has the version")
            .Register(*registry)
            .Add({{"version", QUORVANE_VERSION}})
            .Set(1);
    }

    Counter& counter(const std::string& name, const std::string& help) {
        return prometheus::BuildCounter()
            .Name("quorvane_node_" + name)
            .Help(help)
            .Register(*registry)
            .Add({});
    }

    Counter& labelled(const std::string& name, const std::string& help, const std::string& label,
                      const std::string& value) {
        return prometheus::BuildCounter()
            .Name("quorvane_node_" + name)
            .Help(help)
            .Register(*registry)
            .Add({{label, value}});
    }

    Gauge& gauge(const std::string& name, const std::string& help) {
        return prometheus::BuildGauge()
            .Name("quorvane_node_" + name)
            .Help(help)
            .Register(*registry)
            .Add({});
    }

    std::shared_ptr<prometheus::Registry> registry = std::make_shared<prometheus::Registry>();
    std::shared_ptr<ProcessMetrics> process = std::make_shared<ProcessMetrics>();
    Counter& received = counter("received_packets_total", "Datagrams of any kind");
    Counter& overflowed =
        counter("socket_dropped_packets_total",
                "Datagrams that the system dropped because the receive buffer was full");
    Counter& not_allowed = counter("not_allowed_packets_total",
                                   "Datagrams of senders outside the networks of --allow");
    Counter& calls_begun = counter("calls_begun_total", "Calls that began");
    Counter& calls_ended = counter("calls_ended_total", "Calls that ended");
    Counter& calls_not_terminated =
        counter("calls_not_terminated_total", "Calls that ended without their terminate packet");
    Counter& calls_without_start =
        counter("calls_without_start_total", "Calls that ended without their start packet");
    Counter& calls_not_written =
        counter("calls_not_written_total", "Calls without files because of --max-files");
    Counter& audio_bytes = counter("audio_bytes_total", "Bytes of audio");
    Counter& gaps = counter("gaps_total", "Places where audio was missing");
    Counter& skipped = counter("skipped_packets_total",
                               "Data packets that were given up; some of them may arrive late");
    Counter& silence =
        counter("silence_samples_total", "Samples of silence in place of missing audio");
    Counter& pauses = counter("pauses_total", "Pauses of the senders");
    Counter& assumed_rates =
        counter("assumed_rates_total", "Call sides whose sample rate could only be assumed");
    Counter& rate_changes =
        counter("rate_changes_total", "Sample rates of call sides that changed in mid-call");
    Counter& dropped_audio =
        counter("dropped_audio_bytes_total",
                "Audio for which no memory was left while it waited for the disk");
    Counter& lost_lines = counter("lost_lines_total", "Lines of output that nobody took");
    Counter& lost_frames = counter("lost_frames_total", "Frames of the live view that nobody took");
    Counter& removed_calls = counter("removed_calls_total", "Calls whose files --keep has removed");
    Counter& removed_bytes =
        counter("removed_bytes_total", "Bytes that these files took on the disk");
    Counter& file_errors = counter("file_errors_total", "Files that could not be written");
    Gauge& calls = gauge("calls", "Current calls");
    Gauge& open_files = gauge("open_files", "Open WAV files");
    Gauge& waiting_audio = gauge("waiting_audio_bytes", "Audio that waits for the disk");
    Gauge& receive_buffer = gauge("receive_buffer_bytes", "Receive buffer that the system granted");
    Gauge& nats_connected = gauge("nats_connected", "1 while there is a connection to NATS");
    Gauge& nats_waiting = gauge("nats_waiting_bytes", "Events and audio that wait for NATS");
    Gauge& sample_references = gauge("sample_references", "Recordings that are searched for");
    Counter& onsets = counter("activity_onsets_total", "Beginnings of audio activity");
    Counter& not_analysed =
        counter("analysis_skipped_samples_total", "Samples of audio that the analysis left out");
    prometheus::Family<Counter>& found = prometheus::BuildCounter()
                                             .Name("quorvane_node_samples_found_total")
                                             .Help("Recognised samples by their name")
                                             .Register(*registry);
    std::array<Gauge*, RUNNING_NAMES.size()> running{};
    std::array<Counter*, 4> packets{};
    std::array<Counter*, REPORT_RESULTS.size()> reports{};
    std::array<Counter*, NATS_RESULTS.size()> nats_events{};
    std::array<Counter*, NATS_RESULTS.size()> nats_chunks{};
    std::array<Counter*, DROP_COUNT> dropped{};
    std::array<Counter*, media::DECODE_RESULT_COUNT> malformed{};  // The first one is unused.
};

Metrics::Metrics() : impl_(std::make_unique<Impl>()) {}

Metrics::~Metrics() = default;

std::vector<std::shared_ptr<prometheus::Collectable>> Metrics::collectables() const {
    return {impl_->registry, impl_->process};
}

std::string Metrics::text() const {
    std::vector<prometheus::MetricFamily> families;
    for (const auto& collectable : collectables()) {
        std::vector<prometheus::MetricFamily> more = collectable->Collect();
        std::move(more.begin(), more.end(), std::back_inserter(families));
    }
    return prometheus::TextSerializer().Serialize(families);
}

void Metrics::update(const NodeFigures& figures, const Analyser::Figures& analysis) {
    update(analysis);
    const Totals& totals = figures.totals;
    set(impl_->received, figures.received);
    set(impl_->overflowed, figures.overflowed);
    set(impl_->not_allowed, figures.not_allowed);
    set(impl_->calls_begun, totals.calls_begun);
    set(impl_->calls_ended, totals.calls_ended);
    set(impl_->calls_not_terminated, totals.calls_not_terminated);
    set(impl_->calls_without_start, totals.calls_without_start);
    set(impl_->calls_not_written, figures.calls_not_written);
    set(impl_->audio_bytes, totals.audio_bytes);
    set(impl_->gaps, totals.gaps);
    set(impl_->skipped, totals.lost_packets);
    set(impl_->silence, totals.silence_samples);
    set(impl_->pauses, totals.pauses);
    set(impl_->assumed_rates, totals.assumed_rates);
    set(impl_->rate_changes, totals.rate_changes);
    set(impl_->dropped_audio, figures.dropped_bytes);
    set(impl_->lost_lines, figures.lost_lines);
    set(impl_->lost_frames, figures.lost_frames);
    set(impl_->removed_calls, figures.removed_calls);
    set(impl_->removed_bytes, figures.removed_bytes);
    set(impl_->file_errors, totals.file_errors);
    set(*impl_->reports[0], figures.reports.sent);
    set(*impl_->reports[1], figures.reports.failed);
    set(*impl_->reports[2], figures.reports.not_allowed);
    set(*impl_->reports[3], figures.reports.too_many);
    impl_->calls.Set(static_cast<double>(figures.calls));
    impl_->open_files.Set(static_cast<double>(figures.open_files));
    impl_->waiting_audio.Set(static_cast<double>(figures.waiting_bytes));
    impl_->receive_buffer.Set(static_cast<double>(figures.receive_buffer));
    set(*impl_->nats_events[0], figures.engine.stored_events);
    set(*impl_->nats_events[1], figures.engine.lost_events);
    set(*impl_->nats_chunks[0], figures.engine.sent_chunks);
    set(*impl_->nats_chunks[1], figures.engine.lost_chunks);
    impl_->nats_connected.Set(figures.engine.connected ? 1 : 0);
    impl_->nats_waiting.Set(static_cast<double>(figures.engine.waiting_bytes));
    for (std::size_t i = 0; i < totals.packets.size(); ++i) {
        set(*impl_->packets[i], totals.packets[i]);
    }
    for (std::size_t i = 0; i < DROP_COUNT; ++i) {
        set(*impl_->dropped[i], totals.dropped[i]);
    }
    for (std::size_t i = 1; i < figures.malformed.size(); ++i) {
        set(*impl_->malformed[i], figures.malformed[i]);
    }
}

void Metrics::update(const Analyser::Figures& analysis) {
    impl_->running[0]->Set(static_cast<double>(analysis.activity_sides));
    impl_->running[1]->Set(static_cast<double>(analysis.detection_sides));
    impl_->running[2]->Set(static_cast<double>(analysis.recorded_sides));
    impl_->sample_references.Set(static_cast<double>(analysis.samples));
    set(impl_->onsets, analysis.onsets);
    set(impl_->not_analysed, analysis.skipped);
    // Names that differ only in bytes that are not UTF-8 have the same label.
    std::map<std::string, std::uint64_t> found;
    for (const auto& [name, count] : analysis.found) {
        found[utf8_text(name)] += count;
    }
    for (const auto& [name, count] : found) {
        set(impl_->found.Add({{"sample", name}}), count);
    }
}

}  // namespace qv::node
