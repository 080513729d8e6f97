#include "node/outputs.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <system_error>
#include <utility>

#include "node/analysis/sample_folder.h"
#include "node/lane_thread.h"
#include "node/report/terminal.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

constexpr Micros SECOND{1'000'000};
constexpr std::size_t USUAL_OPEN_FILES = 8192;

bool events_to_stdout(const Options& options) {
    return options.events == "-";
}

std::size_t open_files(const Options& options) {
    const std::size_t wanted =
        options.max_open_files != 0 ? options.max_open_files : USUAL_OPEN_FILES;
    const std::size_t possible = raise_open_file_limit();
    const std::size_t of_lanes =
        options.threads > 1 ? options.threads * LaneThread::DESCRIPTORS : 0;
    return std::min(wanted, possible > of_lanes ? possible - of_lanes : 1);
}

// The system's clock, even while a capture is read.
Micros system_time() {
    return clock_now(CLOCK_REALTIME);
}

// Goes on while the machine sleeps.
Micros uptime() {
    return clock_now(CLOCK_BOOTTIME);
}

FileOutput::Options file_options(const Options& options,
                                 const Patience::KeepWaiting& keep_waiting) {
    const std::uint64_t files_per_call = (options.no_sides ? 0 : 2) + (options.stereo ? 2 : 0) +
                                         (options.timeline ? 1 : 0) + (options.sidecar ? 1 : 0);
    // A capture can be read faster than the disk writes; then the node waits for the disk.
    return {options.folder,
            open_files(options),
            {options.write_buffer_mib * 1024 * 1024, options.read.empty() ? nullptr : keep_waiting},
            {options.overwrite, options.max_files, files_per_call, NamePattern(options.name),
             utc_time, options.sidecar || options.format != AudioFormat::WAV},
            options.sync_s};
}

bool live_wanted(const Options& options) {
    return options.live && options.read.empty() && !events_to_stdout(options) &&
           Terminal::present();
}

std::string buffer_text(std::uint64_t granted, std::uint64_t wanted) {
    const std::string text = "receive buffer " + grouped(granted / 1024) + " KiB";
    return granted >= wanted
               ? text
               : text + " of " + grouped(wanted / 1024) + " KiB wanted (raise net.core.rmem_max)";
}

}  // namespace

Outputs::Outputs(const Options& options, KeepWaiting keep_waiting)
    : options_(options),
      keep_waiting_(std::move(keep_waiting)),
      patience_(!options.read.empty(), keep_waiting_),
      console_(events_to_stdout(options) ? STDERR_FILENO : STDOUT_FILENO),
      lines_(console_.lines()),
      files_(file_options(options, keep_waiting_), lines_),
      live_(live_wanted(options)
                ? std::make_unique<LiveOutput>(console_, lines_, [this] { return calls(); })
                : nullptr),
      events_({options.events, options.every_packet}, lines_, patience_),
      samples_(options.samples, lines_,
               [this](const SampleReferences::Index& samples) {
                   for (const auto& lane : lanes_) {
                       lane->set_samples(samples);
                   }
               }),
      engine_(options.engine, lines_) {
    lines_.show_dates();
    console_.wait_for_room([this] { return patience_.waits_for_room(); });
}

std::string Outputs::open_reports() {
    std::string error = events_.open();
    events_.reopen_with(reloads_);
    if (error.empty()) {
        error = engine_.open(events_);
    }
    if (error.empty()) {
        error = metrics_.open(options_.metrics);
    }
    if (error.empty()) {
        error = open_web();
    }
    if (error.empty()) {
        error = open_sender();
    }
    if (error.empty()) {
        error = samples_.open();
        samples_.reload_with(reloads_);
    }
    if (error.empty()) {
        build();
    }
    return error;
}

Services Outputs::services() const {
    return {true, samples_.index() != nullptr, options_.limits.services.recording};
}

std::string Outputs::open_web() {
    if (!options_.web.address.has_value()) {
        return {};
    }
    web_ = std::make_unique<web::WebOutput>(
        web::WebOutput::Options{options_.web, options_.folder, options_.timeline},
        [this] { return metrics_.text(); },
        [this](const std::string& from, const web::ListenNotice& notice) {
            notices_->listen(notice.uuid, notice.sides, from, notice.seconds);
        });
    return web_->open();
}

std::string Outputs::open_sender() {
    if (!options_.reports) {
        return {};
    }
    const std::vector<tools::Network> this_machine = {tools::parse_network("127.0.0.0/8").value()};
    try {
        reports_ = std::make_unique<ReportSender>(
            options_.reported_to.empty() ? this_machine : options_.reported_to);
    } catch (const std::system_error& error) {
        return std::string("cannot open a socket for reports: ") + error.code().message();
    }
    return {};
}

// When a call ends, each output knows the files that the outputs before it have written. The order
// is therefore: file names, then what writes files, then what reports them.
void Outputs::build() {
    files_.start();
    before_lane_.push_back(&files_.names());
    if (engine_.audio() != nullptr) {
        after_lane_.push_back(engine_.audio());
    }
    if (live_ == nullptr && !options_.quiet) {
        after_lane_.push_back(&lines_);
    }
    if (events_.log() != nullptr) {
        after_lane_.push_back(events_.log());
    }
    if (reports_ != nullptr) {
        after_lane_.push_back(reports_.get());
    }
    if (!options_.on_end.empty()) {
        commands_ = std::make_unique<CommandOutput>(
            EndCommand::Options{options_.on_end, options_.on_end_running}, lines_);
        after_lane_.push_back(commands_->listener());
    }
    if (web_ != nullptr) {
        after_lane_.push_back(&web_->call_listener());
    }
    notices_ = std::make_unique<Notices>(lines_, events_.log(), live_ != nullptr);
    if (options_.keep.any()) {
        retention_ = std::make_unique<RetentionOutput>(
            Retention::Options{options_.folder, options_.name, options_.keep, system_time, uptime},
            RetentionOutput::Names{[this] { return files_.names().present_stems(); },
                                   [this](const std::string& name) { files_.forget_name(name); }},
            *notices_);
    }
}

// The lanes share the memory that the options and the analysis allow.
LaneOutputs& Outputs::add_lane() {
    LaneOutputs::Options lane;
    lane.analysis.activity = options_.activity;
    lane.analysis.samples = samples_.index();
    lane.analysis.most_waiting /= options_.threads;
    lane.most_held = Analyser::MOST_HELD / options_.threads;
    lane.pace = options_.read.empty() ? Analyser::Pace::LIVE : Analyser::Pace::PATIENT;
    lane.recorder = {!options_.no_sides,
                     options_.stereo,
                     {options_.block_kib * 1024 / sizeof(std::int16_t), options_.keep_pauses,
                      options_.resample}};
    lane.finisher = {options_.sidecar, options_.format, options_.overwrite};
    lane.on_not_converted = [this](const std::string& path, const std::string& why) {
        files_.report_not_converted(path, why);
    };
    if (options_.sidecar) {
        lane.sidecar = {options_.folder, options_.overwrite, options_.sync_s > 0};
    }
    lane.timeline = options_.timeline;
    lane.on_document = [this](const std::string& name) { files_.note_document(name); };
    if (live_ != nullptr) {
        lane.on_file_error = [this](const std::string& error) { live_->report_file_error(error); };
    }
    lanes_.push_back(std::make_unique<LaneOutputs>(files_.share(), files_.tasks(), lane,
                                                   before_lane_, after_lane_));
    return *lanes_.back();
}

AllCalls Outputs::calls() const {
    AllCalls all;
    for (const auto& lane : lanes_) {
        all.add(lane->calls());
    }
    return all;
}

Analyser::Figures Outputs::analysis() const {
    Analyser::Figures sum;
    for (const auto& lane : lanes_) {
        sum.add(lane->analysis());
    }
    return sum;
}

bool Outputs::files_complete() {
    return files_.complete([this] { update_files(); });
}

void Outputs::update_files() {
    for (const auto& lane : lanes_) {
        lane->update_files();
    }
}

void Outputs::show_ending(const NodeFigures& figures, Micros now) {
    if (!std::exchange(ending_shown_, true)) {
        last_second_ = now;
    }
    if (live_ != nullptr) {
        for (const auto& lane : lanes_) {
            lane->update(now);
        }
        live_->set_ending(files_.waits_for());
        live_->update(figures, now);
    } else if (now - last_second_ >= SECOND) {
        last_second_ = now + std::chrono::hours(24);  // Once.
        lines_.say("waiting for the end", files_.waits_for() + "; another signal ends the wait");
    }
    events_.flush();
    lines_.flush();
}

void Outputs::give_up_files() {
    files_.give_up();
    update_files();
}

void Outputs::begin(const NodeFigures& figures) {
    const auto wanted = static_cast<std::uint64_t>(options_.receive_buffer_mib) * 1024 * 1024;
    if (options_.read.empty()) {
        lines_.say(
            "listening on " + figures.address,
            "writing to " + options_.folder + ", " + buffer_text(figures.receive_buffer, wanted));
        notices_->listening(figures.address);
    } else {
        lines_.say("reading " + options_.read, "writing to " + options_.folder);
    }
    if (!metrics_.url().empty()) {
        lines_.say("metrics", metrics_.url());
    }
    if (web_ != nullptr) {
        lines_.say("page", web_->url());
        if (web_->is_in_the_clear()) {
            lines_.say("page without tls",
                       "token and audio can be read on the network; --http-cert prevents that");
        }
    }
    notices_->left_behind(files_.leftovers());
    if (retention_ != nullptr) {
        retention_->update(std::chrono::steady_clock::now());
    }
    events_.flush();
    lines_.flush();
    if (live_ != nullptr) {
        live_->begin();
    }
}

void Outputs::update(NodeFigures figures, Micros now) {
    add_figures(figures);
    notices_->overflowed(figures.overflowed);
    if (commands_ != nullptr) {
        commands_->poll();
    }
    const bool reloaded =
        reloads_.update([this](const std::string& what, const std::string& error) {
            lines_.say(error.empty() ? "opened again" : "not opened again",
                       what + (error.empty() ? "" : ": " + error));
        });
    reloaded_ = reloaded_ || reloaded;
    report_lost_output();
    engine_.report();
    lines_.flush();
    events_.flush();
    if (live_ != nullptr) {
        live_->update(figures, now);
    }
    if (now - last_second_ < SECOND) {
        return;
    }
    last_second_ = now;
    files_.report_sync();
    if (retention_ != nullptr) {
        retention_->update(std::chrono::steady_clock::now());
    }
    // Once a second, so that a flood of calls does not cause a flood of lines.
    notices_->losses(figures);
    if (!metrics_.url().empty() || web_ != nullptr) {
        metrics_.update(figures, analysis());
    }
}

void Outputs::reload() {
    // Earlier events belong to the file that is open now.
    events_.flush();
    if (reloads_.empty()) {
        lines_.say("asked to read again", "there is no file to read or open again");
    }
    reloads_.request();
}

void Outputs::finish(NodeFigures figures) {
    if (live_ != nullptr) {
        live_->finish();
    }
    if (web_ != nullptr) {
        web_->close();
    }
    if (retention_ != nullptr) {
        retention_->finish();
    }
    add_figures(figures);
    notices_->overflowed(figures.overflowed);
    notices_->losses(figures);
    events_.flush();
    if (commands_ != nullptr) {
        commands_->finish(patience_);
    }
    files_.report_sync();
    engine_.finish(patience_, *notices_);
    failed_ = figures.dropped_bytes != 0 || figures.totals.file_errors != 0;
    const LostEvents lost = events_.finish();
    lines_.flush();
    patience_.wait_for_reader([this](auto until) { return console_.wait(until); });
    report_lost_output();
    figures.lost_lines = console_.lost_lines();
    print_summary(lines_, figures, lost);
    lines_.flush();
    patience_.wait_for_reader([this](auto until) { return console_.wait(until); });
}

bool Outputs::failed() const {
    return failed_ || files_.failed() || events_.failed() || engine_.failed() ||
           (commands_ != nullptr && commands_->failed());
}

// Reports the lines that were dropped while nobody read this output.
void Outputs::report_lost_output() {
    const std::uint64_t lines = console_.take_lost_lines();
    if (lines != 0) {
        lines_.say("lines lost", grouped(lines) + ": nothing read this output");
    }
}

void Outputs::add_figures(NodeFigures& figures) const {
    if (retention_ != nullptr) {
        figures.removed_calls = retention_->removed_calls();
        figures.removed_bytes = retention_->removed_bytes();
    }
    files_.add_to(figures);
    figures.lost_lines = console_.lost_lines();
    figures.lost_frames = console_.lost_frames();
    if (reports_ != nullptr) {
        figures.reports = reports_->figures();
    }
    figures.engine = engine_.figures();
}

}  // namespace qv::node
