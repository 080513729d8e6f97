#include "node/application.h"

#include <algorithm>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "node/capture_player.h"
#include "node/lanes.h"
#include "node/outputs.h"
#include "node/report/text.h"
#include "node/service_manager.h"
#include "node/signals.h"
#include "node/tick.h"

namespace qv::node {

namespace {

// Connects lanes and outputs, and runs until there is a reason to end.
//
// Its event loop does what concerns the whole program: signals, reports, the live view, the end.
// The lanes receive packets; with one thread, the only lane runs on this loop, too.
class Application {
  public:
    Application(const Options& options, std::ostream& errors);

    int run();

  private:
    std::string open();
    std::string open_socket();
    void notify(const std::string& state);
    void note_end(const std::string& reason);
    void act_on_signals();
    void reload();
    void report_reloaded();
    bool keep_waiting();
    void open_calls();
    std::string open_capture();
    void listen();
    void play_capture();
    void schedule_tick();
    void tick();
    bool idle_too_long(Micros last_arrival, Micros now) const;
    bool enough_calls();
    NodeFigures figures(Micros now);
    void complete_files();
    bool all_complete();
    Micros now() const;
    int finish();

    const Options options_;
    std::ostream& errors_;
    asio::io_context loop_{1};
    asio::steady_timer timer_;
    Outputs outputs_;
    Lanes lanes_;
    std::optional<CapturePlayer> player_;  // In place of a socket, for the only lane.
    std::string address_;
    Micros began_{0};
    bool ending_ = false;
    bool ending_files_ = false;  // No more packets are taken.
    bool impatient_ = false;     // Asked once more to end.
    // What signals have asked for since act_on_signals().
    std::vector<std::string> end_reasons_;
    bool reload_wanted_ = false;
    bool waited_in_vain_ = false;  // No calls came, or the capture did not end properly.
};

Application::Application(const Options& options, std::ostream& errors)
    : options_(options),
      errors_(errors),
      timer_(loop_),
      outputs_(options_, [this] { return keep_waiting(); }),
      lanes_(loop_, options_.threads) {}

int Application::run() {
    Signals signals(loop_);
    const std::string error = open();
    if (!error.empty()) {
        errors_ << "quorvane-node: " << error << std::endl;
        return EXIT_NO_START;
    }
    signals.wait([this](const std::string& reason) { note_end(reason); },
                 [this] { reload_wanted_ = true; });
    if (player_.has_value()) {
        play_capture();
    } else {
        listen();
    }
    return finish();
}

// Signals are handled in the middle of waits for a reader, too, with the lock of the output held
// that waits. They are therefore only noted.
void Application::note_end(const std::string& reason) {
    end_reasons_.push_back(reason);
    impatient_ = std::exchange(ending_, true);
    loop_.stop();
}

// Does what signals have asked for. No lock may be held.
void Application::act_on_signals() {
    for (const std::string& reason : std::exchange(end_reasons_, {})) {
        outputs_.lines().say(reason, "");
        outputs_.hurry();
    }
    if (std::exchange(reload_wanted_, false)) {
        reload();
    }
}

void Application::listen() {
    began_ = steady_now();
    outputs_.begin(figures(began_));
    lanes_.start();
    schedule_tick();
    notify("READY=1");
    loop_.run();
}

void Application::play_capture() {
    player_->play(lanes_.lane(0).calls(), options_.limits);
    player_->report(outputs_.lines());
    waited_in_vain_ = waited_in_vain_ || player_->damaged();
}

// Returns why the program cannot start, or an empty text.
std::string Application::open() {
    std::string error = outputs_.open_folder();
    if (error.empty()) {
        error = options_.read.empty() ? open_socket() : open_capture();
    }
    if (error.empty()) {
        error = outputs_.open_reports();
    }
    if (error.empty()) {
        open_calls();
    }
    return error;
}

std::string Application::open_socket() {
    const std::string error =
        lanes_.open_port(options_.listen, options_.receive_buffer_mib * 1024 * 1024);
    if (!error.empty()) {
        return "cannot listen on " + options_.listen_text + ": " + error;
    }
    sockaddr_in address = options_.listen;
    address.sin_port = htons(lanes_.port());
    address_ = address_text(address);
    return {};
}

std::string Application::open_capture() {
    CapturePlayer::Program program;
    program.begin = [this](Micros began) {
        began_ = began;
        outputs_.begin(figures(began));
        notify("READY=1");
    };
    program.receive = [this](const Datagram& datagram) {
        lanes_.lane(0).receive(datagram);
        loop_.poll();
    };
    program.tick = [this](Micros now) { lanes_.tick(now); };
    program.update = [this](Micros now) {
        outputs_.update(figures(now), now);
        report_reloaded();
    };
    program.complete_files = [this] { outputs_.files_complete(); };
    program.act = [this] { act_on_signals(); };
    program.goes_on = [this] { return !loop_.stopped(); };
    program.has_enough = [this] { return enough_calls(); };
    program.keep_waiting = [this] { return keep_waiting(); };
    player_.emplace(std::move(program));
    return player_->open(options_.read,
                         options_.listen_given ? std::optional(options_.listen) : std::nullopt);
}

void Application::open_calls() {
    Lane::Shared shared;
    shared.limits = options_.limits;
    shared.limits.services = outputs_.services();
    shared.allowed = tools::AllowedNetworks(options_.allowed);
    shared.directory = std::make_shared<CallDirectory>(shared.limits);
    shared.on_malformed = [this](const Datagram& datagram, media::DecodeResult reason,
                                 std::uint64_t count) {
        outputs_.notices().malformed(datagram, reason, count);
    };
    for (std::size_t number = 0; number < lanes_.count(); ++number) {
        lanes_.lane(number).open_calls(shared, outputs_.add_lane());
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
    act_on_signals();
    lanes_.tick(now);
    const NodeFigures all = figures(now);
    outputs_.update(all, now);
    report_reloaded();
    if (outputs_.take_quit()) {
        outputs_.lines().say("asked to end", "by a key");
        loop_.stop();
    } else if (enough_calls()) {
        loop_.stop();
    } else if (idle_too_long(all.last_arrival, now)) {
        outputs_.lines().say("idle for " + duration_text(options_.idle_exit_s), "");
        waited_in_vain_ = options_.calls != 0;
        loop_.stop();
    } else {
        schedule_tick();
    }
}

bool Application::enough_calls() {
    return options_.calls != 0 && lanes_.calls_ended() >= options_.calls;
}

bool Application::idle_too_long(Micros last_arrival, Micros now) const {
    const Micros since = std::max(began_, last_arrival);
    return options_.idle_exit_s > 0 && seconds_of(now - since) >= options_.idle_exit_s;
}

NodeFigures Application::figures(Micros now) {
    NodeFigures figures{lanes_.figures()};
    if (player_.has_value()) {
        figures.received = player_->taken();
    }
    figures.receive_buffer = lanes_.granted_buffer();
    figures.address = address_;
    figures.uptime = now - began_;
    return figures;
}

void Application::reload() {
    // The service manager compares this time with the time of its request.
    notify("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(steady_now().count()));
    outputs_.reload();
}

void Application::report_reloaded() {
    if (outputs_.take_reloaded()) {
        notify("READY=1");
    }
}

// Whether a wait may go on: signals are noted, too. While the program ends, only a further one
// ends the wait.
bool Application::keep_waiting() {
    if (ending_files_) {
        loop_.restart();
        loop_.poll();
        return !impatient_;
    }
    loop_.poll();
    return !loop_.stopped();
}

void Application::notify(const std::string& state) {
    const std::string error = notify_service_manager(state);
    if (!error.empty()) {
        outputs_.lines().say("service manager not notified", error);
    }
}

// The disk may stand still. Another signal or key ends the wait.
void Application::complete_files() {
    const auto begin = std::chrono::steady_clock::now();
    const auto longest = std::chrono::duration<double>(options_.exit_wait_s);
    while (!all_complete()) {
        act_on_signals();
        outputs_.show_ending(figures(now()), now());
        impatient_ = outputs_.take_quit() || impatient_;
        if (!keep_waiting() || std::chrono::steady_clock::now() - begin >= longest) {
            outputs_.give_up_files();
            lanes_.report_ends();
            break;
        }
    }
}

Micros Application::now() const {
    return player_.has_value() ? player_->now() : steady_now();
}

bool Application::all_complete() {
    const bool complete = outputs_.files_complete();
    const bool reported = lanes_.report_ends();
    return complete && reported && outputs_.synced();
}

int Application::finish() {
    act_on_signals();
    notify("STOPPING=1");
    timer_.cancel();
    lanes_.stop();
    ending_ = true;
    ending_files_ = true;
    complete_files();
    act_on_signals();
    outputs_.finish(figures(now()));
    return outputs_.failed() || waited_in_vain_ ? EXIT_TROUBLE : EXIT_FINE;
}

}  // namespace

int run_media_node(const Options& options, std::ostream& errors) {
    return Application(options, errors).run();
}

}  // namespace qv::node
