#include "node/options.h"

#include <CLI/CLI.hpp>
#include <iterator>
#include <map>
#include <sstream>

#include "tools/address.h"
#include "tools/version.h"

namespace qv::node {

namespace {

Micros micros_of(double seconds) {
    return std::chrono::duration_cast<Micros>(std::chrono::duration<double>(seconds));
}

// Unlike CLI::Range, it refuses "nan".
CLI::Validator number_between(double least, double most, const std::string& unit) {
    const std::string bounds =
        CLI::detail::to_string(least) + " to " + CLI::detail::to_string(most);
    return {[least, most, bounds, unit](const std::string& text) -> std::string {
                double number = 0;
                if (CLI::detail::lexical_cast(text, number) && number >= least && number <= most) {
                    return {};
                }
                return "'" + text + "' is no number of " + unit + " from " + bounds;
            },
            bounds};
}

CLI::Validator seconds_between(double least, double most) {
    return number_between(least, most, "seconds");
}

void add_span(CLI::App& app, const std::string& name, Micros& into, const std::string& help,
              const CLI::Validator& range) {
    app.add_option_function<double>(
           name, [&into](double seconds) { into = micros_of(seconds); }, help)
        ->check(range)
        ->type_name("SECONDS")
        ->default_str(CLI::detail::to_string(seconds_of(into)));
}

CLI::Option* add_networks(CLI::App& app, const std::string& name, std::vector<tools::Network>& into,
                          const std::string& help) {
    return app
        .add_option_function<std::vector<std::string>>(
            name,
            [&into](const std::vector<std::string>& networks) {
                for (const std::string& network : networks) {
                    into.push_back(tools::parse_network(network).value());  // The check has passed.
                }
            },
            help)
        ->check(tools::check_network)
        ->type_name("NETWORK")
        ->expected(1)
        ->take_all();
}

void add_output_options(CLI::App& app, Options& options) {
    app.add_option("-l,--listen", options.listen_text,
                   "UDP address and port; port 0 takes a free one and prints it")
        ->check(tools::check_address)
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    app.add_option("-r,--read", options.read,
                   "Read a network capture, pcap or pcapng, in place of listening; - reads the "
                   "standard input; with --listen takes only datagrams to that address and port")
        ->type_name("FILE");
    app.add_option("-o,--output", options.folder, "Folder of the WAV files, made if it is missing")
        ->check([](const std::string& text) {
            return text.empty() ? "a folder needs a name" : std::string();
        })
        ->type_name("FOLDER")
        ->capture_default_str();
    app.add_flag("--overwrite", options.overwrite,
                 "Replace files of earlier runs (else the new ones get a number)");
    app.add_flag("--stereo", options.stereo,
                 "Also one file of both sides: originator left, terminator right");
    app.add_option_function<std::string>(
           "--stereo-rates",
           [&options](const std::string& text) { options.resample = text == "resample"; },
           "Sides of different sample rates, and those whose rate changes, in that file: resample "
           "one of them, or split them into files of their own")
        ->check(CLI::IsMember({"resample", "split"}))
        ->type_name("HOW")
        ->default_str("resample");
    app.add_flag("--no-sides", options.no_sides, "No file for each side");
    app.add_flag("--keep-pauses", options.keep_pauses,
                 "Keep the sender's pauses in the files of one side, as the stereo file does");
    app.add_flag("-q,--quiet", options.quiet, "No line for each packet and call");
}

void add_sender_options(CLI::App& app, Options& options) {
    add_networks(app, "--allow", options.allowed,
                 "Take packets only from senders in this network, as in 192.0.2.0/24; may be "
                 "repeated");
    app.add_flag("--any-source", options.limits.any_source,
                 "Take a call's packets from any address, not only from the one that began it");
}

// Returns the words of a text, separated by blanks.
std::vector<std::string> words_of(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

void add_end_options(CLI::App& app, Options& options) {
    app.add_option_function<std::string>(
           "--on-end", [&options](const std::string& text) { options.on_end = words_of(text); },
           "Run this after each call, with the call's files as further arguments; without a "
           "shell: blanks separate its words, and quotes mean nothing")
        ->check([](const std::string& text) {
            return words_of(text).empty() ? "a command needs a name" : std::string();
        })
        ->type_name("COMMAND");
    app.add_option("--on-end-running", options.on_end_running,
                   "So many of these commands at once; the calls after them wait")
        ->check(CLI::Range(1, 1000))
        ->type_name("N")
        ->capture_default_str();
}

void add_report_options(CLI::App& app, Options& options) {
    app.add_option("--events", options.events,
                   "Append events as JSON lines to FILE; - writes them to the standard output, "
                   "and all else to the standard error")
        ->type_name("FILE");
    app.add_flag("--packets", options.every_packet, "Data packets are events, too");
    CLI::Option* reports =
        app.add_flag("--reports", options.reports,
                     "Send start, activity, sample and end events to the report node of the call");
    add_networks(app, "--report-to", options.reported_to,
                 "Send reports only to this network, as in 192.0.2.0/24; may be repeated (else "
                 "only to this machine, 127.0.0.0/8)")
        ->needs(reports);
    app.add_flag("--live", options.live, "Show the calls on the terminal (lines if it is none)");
    app.add_flag("--timeline", options.timeline,
                 "Draw each call: an SVG file beside its WAV files");
    app.add_option_function<std::string>(
           "--metrics",
           [&options](const std::string& text) {
               options.metrics = tools::parse_address(text);  // The check has passed.
           },
           "Serve Prometheus metrics there; a port alone is of 127.0.0.1; 0 takes a free one")
        ->check(tools::check_address)
        ->type_name("ADDRESS:PORT");
}

void add_exit_options(CLI::App& app, Options& options) {
    app.add_option("--calls", options.calls, "End after N calls have ended; 0 never")
        ->check(CLI::Range(0, 1'000'000'000))
        ->type_name("N");
    app.add_option("--idle-exit", options.idle_exit_s,
                   "End after so long without any packet, the wait for the first one included")
        ->check(seconds_between(0, 1'000'000))
        ->type_name("SECONDS");
}

void add_audio_options(CLI::App& app, Options& options) {
    CallLimits& limits = options.limits;
    app.add_option("--rate,--sample-rate", limits.sample_rate,
                   "Sample rate of all calls (else told from sample offset against send time)")
        ->check(CLI::Range(1000, 384000))
        ->type_name("HZ");
    app.add_option("--max-reorder", limits.reorder.packets,
                   "Packets a side that wait for an earlier one")
        ->check(CLI::Range(0, 1000))
        ->type_name("N")
        ->capture_default_str();
    add_span(app, "--reorder-wait", limits.reorder.wait, "How long they wait",
             seconds_between(0, 10));
    app.add_option("--max-silence", limits.max_silence_s, "Longest silence for one gap")
        ->check(seconds_between(0, 3600))
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_analysis_options(CLI::App& app, Options& options) {
    using Recording = Services::Recording;
    static const std::map<std::string, Recording> recordings = {
        {"all", Recording::ALL}, {"requested", Recording::REQUESTED}, {"none", Recording::NONE}};
    app.add_option_function<std::string>(
           "--record",
           [&options](const std::string& text) {
               options.limits.services.recording = recordings.at(text);
           },
           "Which sides are recorded: all, requested by the call, or none")
        ->check(CLI::IsMember(recordings))
        ->type_name("SIDES")
        ->default_str("all");
    app.add_option("--samples", options.samples,
                   "Recognise the WAV files of this folder where sample detection is on")
        ->check([](const std::string& text) {
            return text.empty() ? "a folder needs a name" : std::string();
        })
        ->type_name("FOLDER");
    analysis::ActivityOptions& activity = options.activity;
    app.add_option("--activity-level", activity.level_db, "Quieter sound is no audio activity")
        ->check(number_between(-90, 0, "dB"))
        ->type_name("DB")
        ->capture_default_str();
    app.add_option("--activity-hang-over", activity.hang_over_ms,
                   "Pauses up to this long belong to the activity around them")
        ->check(CLI::Range(0, 10'000))
        ->type_name("MS")
        ->capture_default_str();
    app.add_option("--activity-minimum", activity.minimum_ms, "Shorter activity is not reported")
        ->check(CLI::Range(0, 10'000))
        ->type_name("MS")
        ->capture_default_str();
}

void add_limit_options(CLI::App& app, Options& options) {
    CallLimits& limits = options.limits;
    app.add_option("--max-calls", limits.max_calls, "Calls at once; packets of others are dropped")
        ->check(CLI::Range(1, 10'000'000))
        ->type_name("N")
        ->capture_default_str();
    add_span(app, "--call-timeout", limits.idle, "End a call after so long without a packet",
             seconds_between(0.1, 86400));
    add_span(app, "--max-call-age", limits.max_age, "End a call that is older",
             seconds_between(0.1, 7 * 86400));
    add_span(app, "--linger", limits.linger, "Wait for late packets after a terminate packet",
             seconds_between(0, 60));
    app.add_option("--max-open-files", options.max_open_files,
                   "Files open at once; others are closed and opened again (default: what the "
                   "system allows)")
        ->check(CLI::Range(1, 1'000'000))
        ->type_name("N");
    app.add_option("--max-files", options.max_files,
                   "Files of one run; calls with which there could be more are not written; 0 "
                   "for no limit")
        ->check(CLI::Range(0, 1'000'000'000))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--block", options.block_kib, "Audio gathered before it is written, a side")
        ->check(CLI::Range(1, 4096))
        ->type_name("KIB")
        ->capture_default_str();
    app.add_option("--sync", options.sync_s,
                   "Have what was written brought to the disk so often; 0 when the system likes")
        ->check(seconds_between(0, 86400))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option("--receive-buffer", options.receive_buffer_mib, "Receive buffer of the socket")
        ->check(CLI::Range(1, 1024))
        ->type_name("MIB")
        ->capture_default_str();
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, Options& options) {
    CLI::App app(
        "Receives the audio of calls from mod_quorvane and writes it as WAV files, one a side.\n"
        "SIGINT and SIGTERM end it with all files complete; SIGHUP opens the events file again.",
        "quorvane-node");
    app.set_version_flag("--version", tools::version_text("quorvane-node"));
    app.footer(
        "Exit codes: 0 fine; 1 a file could not be written, or --idle-exit came before --calls;\n"
        "2 wrong command line; 3 the port, the folder or the events file cannot be used.");
    add_output_options(app, options);
    add_sender_options(app, options);
    add_report_options(app, options);
    add_end_options(app, options);
    add_exit_options(app, options);
    add_audio_options(app, options);
    add_analysis_options(app, options);
    add_limit_options(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_FINE : EXIT_USAGE;
    }
    options.listen_given = app.count("--listen") != 0;
    options.listen = tools::parse_address(options.listen_text).value();  // The check has passed.
    return std::nullopt;
}

}  // namespace qv::node
