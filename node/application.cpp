#include "node/application.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <fstream>
#include <iostream>
#include <numeric>
#include <system_error>
#include <utility>

#include "node/report/text.h"

namespace qv::node {

namespace {

constexpr auto TICK = std::chrono::milliseconds(50);
constexpr Micros FRAME{250'000};
constexpr Micros SECOND{1'000'000};
constexpr std::size_t SPARE_DESCRIPTORS = 64;
constexpr std::size_t USUAL_OPEN_FILES = 8192;
// Malformed datagrams are shown one by one up to here, then only counted.
constexpr std::uint64_t MALFORMED_LINES_PER_REASON = 3;

// The terminal shows the alternate screen while the live view is on.
constexpr const char* ENTER_SCREEN = "\x1b[?1049h\x1b[?25l\x1b[2J";
constexpr const char* LEAVE_SCREEN = "\x1b[?25h\x1b[?1049l";

// Raises the limit of open files as far as allowed; returns how many WAV files fit.
std::size_t possible_open_files() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return SPARE_DESCRIPTORS;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto possible = static_cast<std::size_t>(limit.rlim_cur);
    return possible > 2 * SPARE_DESCRIPTORS ? possible - SPARE_DESCRIPTORS
                                            : std::max<std::size_t>(possible / 2, 1);
}

ScreenSize screen_size() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

std::string hex_of(const unsigned char* data, std::size_t size) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += {' ', digits[data[i] >> 4], digits[data[i] & 15]};
    }
    return text;
}

// Writes all of the text or leaves no file behind; returns why not.
std::string write_file(const std::string& path, const std::string& text) {
    errno = 0;
    std::ofstream file(path, std::ios::trunc);
    if (!file) {
        return std::generic_category().message(errno);
    }
    file << text;
    file.close();
    if (file) {
        return {};
    }
    const int error = errno;
    ::unlink(path.c_str());
    return std::generic_category().message(error);
}

bool to_stdout(const Options& options) {
    return options.events == "-";
}

}  // namespace

Application::Application(const Options& options, std::ostream& out, std::ostream& errors)
    : options_(options),
      out_(out),
      errors_(errors),
      live_(options.live && !to_stdout(options) && isatty(STDOUT_FILENO) != 0),
      signals_(loop_),
      timer_(loop_),
      lines_(to_stdout(options) ? errors : out),
      receiver_(loop_, [this](const Datagram& datagram) { on_datagram(datagram); }) {}

int Application::run() {
    // A reader of our output that goes away must not end the recordings.
    std::signal(SIGPIPE, SIG_IGN);
    // A file beyond the limit of its size is an error of that file.
    std::signal(SIGXFSZ, SIG_IGN);
    if (!open()) {
        return EXIT_NO_START;
    }
    signals_.async_wait([this](std::error_code error, int number) {
        if (!error) {
            lines_.say(number == SIGINT ? "interrupted" : "asked to end", "");
            loop_.stop();
        }
    });
    began_ = last_packet_ = last_second_ = steady_now();
    receiver_.start();
    schedule_tick();
    loop_.run();
    finish();
    return exit_code_;
}

bool Application::open() {
    if (!open_folder() || !open_socket() || !open_events() || !open_metrics()) {
        return false;
    }
    open_calls();
    greet();
    return true;
}

bool Application::refuse(const std::string& what, const std::string& why) {
    errors_ << "quorvane-node: " << what << ": " << why << std::endl;
    return false;
}

bool Application::open_folder() {
    const std::size_t possible = possible_open_files();
    const std::size_t wanted =
        options_.max_open_files != 0 ? options_.max_open_files : USUAL_OPEN_FILES;
    folder_ = std::make_unique<WavFolder>(options_.folder, std::min(wanted, possible),
                                          options_.overwrite);
    const std::string error = folder_->prepare();
    return error.empty() || refuse("cannot write to folder " + options_.folder, error);
}

bool Application::open_socket() {
    const std::string error =
        receiver_.open(options_.listen, options_.receive_buffer_mib * 1024 * 1024);
    if (!error.empty()) {
        return refuse("cannot listen on " + options_.listen_text, error);
    }
    address_ = address_text(reinterpret_cast<const unsigned char*>(&options_.listen.sin_addr),
                            receiver_.port());
    std::error_code ignored;
    signals_.add(SIGINT, ignored);
    signals_.add(SIGTERM, ignored);
    return true;
}

bool Application::open_events() {
    if (options_.events.empty()) {
        return true;
    }
    const std::string error = events_file_.open(options_.events);
    if (!error.empty()) {
        return refuse("cannot write events to " + options_.events, error);
    }
    events_ = std::make_unique<EventLog>(
        [this](const char* lines, std::size_t size) { return events_file_.write(lines, size); },
        options_.every_packet);
    return true;
}

bool Application::open_metrics() {
    if (!options_.metrics_port.has_value()) {
        return true;
    }
    try {
        metrics_ = std::make_unique<Metrics>(*options_.metrics_port);
    } catch (const std::exception&) {  // Its text speaks of the library's insides.
        return refuse("cannot serve metrics on port " + std::to_string(*options_.metrics_port),
                      "it is in use or not permitted");
    }
    return true;
}

// The first names the files, the second writes audio: those that follow know at the end of a
// call which files there are. So those that write files come before those that name them.
void Application::open_calls() {
    file_names_ = make_file_names();
    const RecordingOptions recording{options_.block_kib * 1024 / sizeof(std::int16_t),
                                     options_.keep_pauses};
    recorder_ = std::make_unique<Recorder>(
        *folder_, Recorder::Options{!options_.no_sides, options_.stereo, recording});
    std::vector<CallListener*> outputs = {file_names_.get(), recorder_.get()};
    if (options_.timeline) {
        timeline_ =
            std::make_unique<Timeline>([this](const std::string& name, const std::string& svg) {
                return save_timeline(name, svg);
            });
        outputs.push_back(timeline_.get());
    }
    if (live_) {
        outputs.push_back(&live_view_);
    } else if (!options_.quiet) {
        outputs.push_back(&lines_);
    }
    if (events_ != nullptr) {
        outputs.push_back(events_.get());
    }
    calls_ = std::make_unique<CallTable>(options_.limits, outputs);
}

void Application::greet() {
    const auto granted = static_cast<std::uint64_t>(receiver_.granted_buffer());
    const auto wanted = static_cast<std::uint64_t>(options_.receive_buffer_mib) * 1024 * 1024;
    lines_.say("listening on " + address_,
               "writing to " + options_.folder + ", receive buffer " + grouped(granted / 1024) +
                   " KiB" +
                   (granted < wanted
                        ? " of " + grouped(wanted / 1024) + " KiB wanted (raise net.core.rmem_max)"
                        : ""));
    if (metrics_ != nullptr) {
        lines_.say("metrics", "http://127.0.0.1:" + std::to_string(metrics_->port()) + "/metrics");
    }
    if (events_ != nullptr) {
        events_->listening(address_);
        events_->flush();
    }
    lines_.flush();
    if (live_) {
        lines_.hold();
        out_ << ENTER_SCREEN << std::flush;
    }
}

std::unique_ptr<FileNames> Application::make_file_names() {
    const std::uint64_t files_per_call =
        (options_.no_sides ? 0 : 2) + (options_.stereo ? 2 : 0) + (options_.timeline ? 1 : 0);
    return std::make_unique<FileNames>(
        *folder_, FileNames::Options{options_.overwrite, options_.max_files, files_per_call},
        [this] { return folder_->created_files() + saved_timelines_; },
        [this] {
            lines_.say("too many files", "with further calls there could be more than " +
                                             grouped(options_.max_files) +
                                             " (--max-files): such calls are not written");
        });
}

FileReport Application::save_timeline(const std::string& name, const std::string& svg) {
    const std::string path = options_.folder + '/' + name;
    ++saved_timelines_;
    const std::string error = write_file(path, svg);
    // Otherwise the lines report it with its call.
    if (!error.empty() && (options_.quiet || live_)) {
        lines_.say("timeline not written", path + ": " + error);
    }
    return {path, error};
}

void Application::on_datagram(const Datagram& datagram) {
    last_packet_ = datagram.arrival.time;
    media::Packet packet;
    const media::DecodeResult result = media::decode_packet(datagram.data, datagram.size, packet);
    if (result != media::DecodeResult::OK) {
        count_malformed(result, datagram);
        return;
    }
    calls_->receive(packet, datagram.arrival);
}

void Application::count_malformed(media::DecodeResult reason, const Datagram& datagram) {
    const std::uint64_t count = ++malformed_[static_cast<std::size_t>(reason)];
    if (count > MALFORMED_LINES_PER_REASON) {
        return;
    }
    const std::string beginning = hex_of(datagram.data, std::min<std::size_t>(datagram.size, 8));
    if (!live_) {
        lines_.say("malformed packet",
                   std::string(describe(reason)) + ": " + counted(datagram.size, "byte") +
                       (beginning.empty() ? "" : ", beginning with" + beginning) +
                       (count == MALFORMED_LINES_PER_REASON ? "; more are only counted" : ""));
    }
    if (events_ != nullptr) {
        events_->malformed(reason, datagram.size);
    }
}

void Application::schedule_tick() {
    timer_.expires_after(TICK);
    timer_.async_wait([this](std::error_code error) {
        if (!error) {
            tick();
        }
    });
}

void Application::tick() {
    const Micros now = steady_now();
    calls_->tick(now);
    report_losses();
    update_outputs(now);
    const bool idle_too_long =
        options_.idle_exit_s > 0 &&
        std::chrono::duration<double>(now - last_packet_).count() >= options_.idle_exit_s;
    if (enough()) {
        loop_.stop();
    } else if (idle_too_long) {
        lines_.say("idle for " + duration_text(options_.idle_exit_s), "");
        exit_code_ = options_.calls != 0 ? EXIT_TROUBLE : exit_code_;
        loop_.stop();
    } else {
        schedule_tick();
    }
}

bool Application::enough() const {
    return options_.calls != 0 && calls_->totals().calls_ended >= options_.calls;
}

void Application::report_losses() {
    const std::uint64_t overflowed = receiver_.overflowed();
    const std::uint64_t fresh = overflowed - std::exchange(reported_overflow_, overflowed);
    if (fresh == 0) {
        return;
    }
    if (!live_) {
        lines_.say("receive buffer full", "the system dropped " + counted(fresh, "packet"));
    }
    if (events_ != nullptr) {
        events_->overflow(fresh);
    }
}

// Once a second, so that a flood of calls does not become a flood of lines.
void Application::report_drops() {
    const std::uint64_t count = calls_->totals().dropped_for(Drop::TOO_MANY_CALLS);
    if (count != reported_too_many_ && !live_) {
        lines_.say("too many calls", "dropped " + counted(count - reported_too_many_, "packet") +
                                         " of further calls");
    }
    reported_too_many_ = count;
}

void Application::update_outputs(Micros now) {
    lines_.flush();
    flush_events();
    if (live_ && now - last_frame_ >= FRAME) {
        last_frame_ = now;
        show_live(now);
    }
    if (now - last_second_ < SECOND) {
        return;
    }
    last_second_ = now;
    report_drops();
    if (metrics_ != nullptr) {
        metrics_->update({calls_->totals(), malformed_, receiver_.received(),
                          receiver_.overflowed(), calls_->size(), folder_->open_files(),
                          receiver_.granted_buffer(), file_names_->refused_calls()});
    }
}

void Application::flush_events() {
    if (events_ == nullptr) {
        return;
    }
    const bool failed = !events_->flush();
    if (failed == std::exchange(events_failed_, failed)) {
        return;
    }
    if (failed) {
        exit_code_ = EXIT_TROUBLE;
        lines_.say("events not written", options_.events + ": " + events_file_.error());
        return;
    }
    const std::uint64_t lost = events_->dropped();
    lines_.say("events are written again",
               grouped(lost - std::exchange(reported_lost_events_, lost)) + " lost");
}

void Application::show_live(Micros now) {
    const LiveFigures figures{address_,          now - began_,           receiver_.received(),
                              malformed_total(), receiver_.overflowed(), calls_->totals()};
    out_ << "\x1b[H" << live_view_.frame(figures, now, screen_size()) << "\x1b[J" << std::flush;
}

std::uint64_t Application::malformed_total() const {
    return std::accumulate(malformed_.begin(), malformed_.end(), std::uint64_t{0});
}

void Application::finish() {
    if (live_) {
        out_ << LEAVE_SCREEN << std::flush;
        lines_.release();
    }
    receiver_.drain_and_stop();
    calls_->shut_down();
    report_losses();
    flush_events();
    if (calls_->totals().file_errors != 0) {
        exit_code_ = EXIT_TROUBLE;
    }
    print_summary();
    lines_.flush();
}

void Application::print_summary() {
    const Totals& totals = calls_->totals();
    std::string calls = counted(totals.calls_ended, "call");
    if (totals.calls_not_terminated != 0) {
        calls += " (" + grouped(totals.calls_not_terminated) + " without terminate packet)";
    }
    if (totals.calls_without_start != 0) {
        calls += " (" + grouped(totals.calls_without_start) + " without start packet)";
    }
    lines_.say("summary", calls + ", " + counted(receiver_.received(), "packet") + ", " +
                              grouped(totals.audio_bytes) + " bytes of audio, " +
                              counted(totals.gaps, "gap"));
    for (std::size_t i = 0; i < malformed_.size(); ++i) {
        if (malformed_[i] != 0) {
            lines_.say("  malformed: " + grouped(malformed_[i]),
                       describe(static_cast<media::DecodeResult>(i)));
        }
    }
    for (std::size_t i = 0; i < DROP_COUNT; ++i) {
        if (totals.dropped[i] != 0) {
            lines_.say("  not used: " + grouped(totals.dropped[i]), describe(static_cast<Drop>(i)));
        }
    }
    if (totals.file_errors != 0) {
        lines_.say("  not written: " + counted(totals.file_errors, "file"), "");
    }
    if (file_names_->refused_calls() != 0) {
        lines_.say("  not written: " + counted(file_names_->refused_calls(), "call"),
                   "too many files");
    }
    if (events_ != nullptr && events_->dropped() + events_->waiting() != 0) {
        lines_.say("  events lost: " + grouped(events_->dropped() + events_->waiting()),
                   options_.events);
    }
    if (receiver_.overflowed() != 0) {
        lines_.say("  lost in the socket: " + grouped(receiver_.overflowed()), "buffer full");
    }
}

}  // namespace qv::node
