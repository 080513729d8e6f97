#include "tools/call/application.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "tools/address.h"
#include "tools/call/driver.h"
#include "tools/call/file_error.h"
#include "tools/call/run_printer.h"
#include "tools/call/text.h"

namespace qv::tools::call {
namespace {

constexpr std::size_t FEW_CALLS = 10;
constexpr double TONE_HERTZ[] = {440, 550};  // of the read and of the write side
constexpr double TONE_SECONDS = 1;           // whole periods of both, so that it can be repeated

std::string audio_text(const std::optional<Audio>& audio, const std::optional<Span>& length_s) {
    if (!audio) {
        return "nothing";
    }
    if (!length_s) {
        return audio->name + ", " + duration_text(audio->seconds());
    }
    std::string text = audio->name + " for " + duration_text(length_s->min);
    if (length_s->max > length_s->min) {
        text += " to " + duration_text(length_s->max);
    }
    return text;
}

std::size_t terminal_columns() {
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace

Application::Application(Options options, std::ostream& out, std::ostream& errors,
                         const std::atomic<bool>& stop)
    : options_(std::move(options)),

      errors_(errors),
      stop_(stop),
      console_(out, errors, isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0,
               terminal_columns) {}

int Application::run() {
    const auto fail = [this](const std::exception& error, int code) {
        errors_ << "quorvane-call: " << error.what() << std::endl;
        return code;
    };
    try {
        return run_checked();
    } catch (const FileError& error) {
        return fail(error, EXIT_USAGE);
    } catch (const PlanError& error) {
        return fail(error, EXIT_USAGE);
    } catch (const SettingsError& error) {
        return fail(error, EXIT_NO_START);
    }
}

int Application::run_checked() {
    load_audio();
    check_plan(options_.plan);
    open_json();
    open_network();
    const std::string text = config_text(options_.module);
    const PlacedConfig config(options_.module, text);
    return run_with_module(config);
}

void Application::load_audio() {
    CallPlan& plan = options_.plan;
    if (!options_.read_path.empty()) {
        plan.read = load_wav(options_.read_path);
    }
    if (!options_.write_path.empty()) {
        plan.write = load_wav(options_.write_path);
    }
    if (plan.read || plan.write) {
        return;
    }
    plan.read = make_tone(options_.tone_rate, TONE_HERTZ[0], TONE_SECONDS);
    plan.write = make_tone(options_.tone_rate, TONE_HERTZ[1], TONE_SECONDS);
    plan.afterwards = Afterwards::REPEAT;
}

// The module sends to the network in place of the media node.
void Application::open_network() {
    if (!options_.network.wanted()) {
        return;
    }
    const std::string media_node = media_node_of(options_.module);
    try {
        network_.emplace(options_.network, parse_address(media_node).value(),
                         options_.plan.schedule.seed);
    } catch (const std::system_error& error) {
        throw SettingsError(std::string("no way to the media node: ") + error.what());
    }
    options_.module.options.emplace_back("media_node", network_->address());
}

// Called before the run, so that a wrong path does not waste the run.
void Application::open_json() {
    if (options_.json_path.empty()) {
        return;
    }
    json_.open(options_.json_path);
    if (!json_) {
        throw FileError(options_.json_path + ": " + std::generic_category().message(errno));
    }
}

int Application::run_with_module(const PlacedConfig& config) {
    host::HostOptions host_options;
    host_options.media_threads = options_.threads;
    LogView log(console_, options_.show_log);
    host::EmbeddedHost host(host_options);
    log.listen(host.log());
    for (const FaultSpan& fault : options_.plan.faults) {
        if (!fault.from_s) {
            switch_fault(host.faults(), fault, true);
        }
    }
    const host::LoadResult loaded = host.load_module(config.module_path());
    if (!loaded.loaded) {
        errors_ << "quorvane-call: " << config.module_path()
                << " could not be loaded: " << loaded.error << std::endl;
        return EXIT_NO_START;
    }
    tell_begin(config, host.api("quorvane media_node").text);
    return tell_end(run_calls(host, log, loaded.name));
}

RunReport Application::run_calls(host::EmbeddedHost& host, const LogView& log,
                                 const std::string& module) {
    const CallPlan& plan = options_.plan;
    if (network_.has_value()) {
        network_->start();
    }
    RunPrinter printer(console_, call_lines(), plan.schedule.calls > 1);
    Driver driver(host, plan, printer);
    RunReport report;
    report.totals = driver.run(stop_);
    host.events().wait_drained();
    report.unload = host.unload_module(module);
    if (network_.has_value()) {
        report.network = network_->finish();
    }
    report.outbound = plan.outbound;
    report.rate = rate_of(plan);
    report.frame_ms = plan.frame_ms;
    report.free_running = plan.free_running;
    report.read = driver.tally().side(host::Direction::READ);
    report.write = driver.tally().side(host::Direction::WRITE);
    report.lateness = distribution_of(driver.tally().lateness());
    report.handling = distribution_of(driver.tally().handling());
    report.log = log.counts();
    report.host = host.report();
    return report;
}

bool Application::call_lines() const {
    if (options_.call_lines == CallLines::FEW_CALLS) {
        return options_.plan.schedule.calls <= FEW_CALLS;
    }
    return options_.call_lines == CallLines::ALWAYS;
}

void Application::tell_begin(const PlacedConfig& config, std::string media_node) {
    media_node = media_node.substr(0, media_node.find('\n'));
    const CallPlan& plan = options_.plan;
    console_.line("Module    " + config.module_path() + ", its configuration in " +
                  config.description());
    console_.line("Goes to   " + media_node +
                  (network_.has_value() ? ", which passes it on: see Network" : ""));
    std::string text =
        counted(plan.schedule.calls, "call") + (plan.outbound ? ", outbound" : ", inbound");
    console_.line("Plan      " + text + "; read: " + audio_text(plan.read, plan.schedule.length_s) +
                  "; write: " + audio_text(plan.write, plan.schedule.length_s));
}

int Application::tell_end(const RunReport& report) {
    console_.set_status("");
    if (json_.is_open()) {
        // A command is the user's text and may be invalid UTF-8.
        json_ << report_json(report).dump(2, ' ', false,
                                          nlohmann::ordered_json::error_handler_t::replace)
              << std::endl;
    }
    for (const std::string& line : report_lines(report)) {
        console_.line(line);
    }
    auto problems = problems_of(report);
    if (json_.is_open() && !json_) {
        problems.push_back(options_.json_path + " could not be written");
    }
    for (const std::string& problem : problems) {
        console_.line("Problem   " + problem);
    }
    return problems.empty() ? EXIT_FINE : EXIT_TROUBLE;
}

}  // namespace qv::tools::call
