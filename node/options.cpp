#include "node/options.h"

#include <sched.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>

#include "node/audio/call_file_names.h"
#include "node/audio/name_pattern.h"
#include "quorvane_lib/conf_configuration.h"
#include "tools/address.h"
#include "tools/help_formatter.h"
#include "tools/version.h"

namespace qv::node {

namespace {

constexpr std::size_t HELP_COLUMN = 34;
constexpr std::size_t MOST_THREADS = 256;

// The cores on which this process may run; at least 1.
std::size_t available_cores() {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    if (sched_getaffinity(0, sizeof cores, &cores) != 0) {
        return 1;
    }
    return static_cast<std::size_t>(CPU_COUNT(&cores));
}

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
            ""};
}

// Bounds that the help does not show; the message about a wrong value names them.
template <typename Number>
CLI::Validator between(Number least, Number most) {
    return CLI::Range(least, most).description("");
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

void add_input_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Input and files");
    app.add_option("-l,--listen", options.listen_text,
                   "UDP address and port to receive on; port 0 takes a free port and prints it")
        ->check(tools::check_address)
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    app.add_option("--threads", options.threads,
                   "Threads that receive; each call stays on one of them; 0 means one per core")
        ->check(between<std::size_t>(0, MOST_THREADS))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("-r,--read", options.read,
                   "Read a network capture (pcap or pcapng) instead of listening; - reads the "
                   "standard input; with --listen, take only datagrams to that address and port")
        ->type_name("FILE");
}

// Which audio files a call gets.
void add_format_options(CLI::App& app, Options& options) {
    app.add_flag("--stereo", options.stereo,
                 "Also write a file of both sides: originator left, terminator right");
    app.add_option_function<std::string>(
           "--stereo-rates",
           [&options](const std::string& text) { options.resample = text == "resample"; },
           "What to do in that file with sides of different sample rates: resample one of them, or "
           "split them into files of their own")
        ->check(CLI::IsMember({"resample", "split"}).description(""))
        ->type_name("HOW")
        ->default_str("resample");
    app.add_flag("--no-sides", options.no_sides, "Write no file per side");
    static const std::map<std::string, AudioFormat> formats = {
        {"wav", AudioFormat::WAV}, {"flac", AudioFormat::FLAC}, {"opus", AudioFormat::OPUS}};
    app.add_option_function<std::string>(
           "--format", [&options](const std::string& text) { options.format = formats.at(text); },
           "Format of the audio files: wav, flac or opus; files are WAV files until their call "
           "ends")
        ->check(CLI::IsMember(formats).description(""))
        ->type_name("FORMAT")
        ->default_str("wav");
}

void add_file_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Input and files");
    app.add_option("-o,--output", options.folder,
                   "Folder of the files; it is made if it is missing")
        ->check([](const std::string& text) {
            return text.empty() ? "a folder needs a name" : std::string();
        })
        ->type_name("FOLDER")
        ->capture_default_str();
    app.add_option("--name", options.name,
                   "Pattern for the names of files, with {uuid}, {reference}, {date}, {time}")
        ->check(NamePattern::complaint)
        ->type_name("PATTERN")
        ->capture_default_str();
    app.add_flag("--overwrite", options.overwrite,
                 "Replace existing files (default: new files get a number)");
    add_format_options(app, options);
    app.add_flag("--sidecar", options.sidecar,
                 "Also write a JSON file per call that describes the call and its files");
    app.add_flag("--keep-pauses", options.keep_pauses,
                 "Keep pauses in the files of one side, as in the stereo file");
    app.add_flag("-q,--quiet", options.quiet, "Print no lines about packets and calls");
}

void add_sender_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Senders");
    add_networks(app, "--allow", options.allowed,
                 "Accept packets only from this network, such as 192.0.2.0/24; may be repeated");
    app.add_flag(
        "--any-source", options.limits.any_source,
        "Accept a call's packets from any address, not only from the one that began the call");
}

// Returns the words of a text, separated by blanks.
std::vector<std::string> words_of(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

void add_end_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("After a call");
    app.add_option_function<std::string>(
           "--on-end", [&options](const std::string& text) { options.on_end = words_of(text); },
           "Run this command after each call, with the call's files as further arguments. There is "
           "no shell: blanks separate its words, and quotes have no meaning")
        ->check([](const std::string& text) {
            return words_of(text).empty() ? "a command needs a name" : std::string();
        })
        ->type_name("COMMAND");
    app.add_option("--on-end-running", options.on_end_running,
                   "Most of these commands at once; further calls wait")
        ->check(between(1, 1000))
        ->type_name("N")
        ->capture_default_str();
}

void add_report_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Reports");
    app.add_option("--events", options.events,
                   "Append events to FILE as JSON lines; - writes them to the standard output, and "
                   "all lines to the standard error")
        ->type_name("FILE");
    app.add_flag("--packets", options.every_packet, "Also write an event per data packet");
    CLI::Option* reports =
        app.add_flag("--reports", options.reports,
                     "Send start, activity, sample and end events to the report node of the call");
    add_networks(
        app, "--report-to", options.reported_to,
        "Send reports only to this network, such as 192.0.2.0/24; may be repeated (default: "
        "127.0.0.0/8, this machine)")
        ->needs(reports);
    app.add_flag("--live", options.live,
                 "Show all calls on one screen (prints lines if the output is not a terminal)");
    app.add_flag("--timeline", options.timeline, "Draw an SVG file per call");
    app.add_option_function<std::string>(
           "--metrics",
           [&options](const std::string& text) {
               options.metrics = tools::parse_address(text);  // The check has passed.
           },
           "Serve Prometheus metrics at this address; a port alone belongs to 127.0.0.1; port 0 "
           "takes a free port")
        ->check(tools::check_address)
        ->type_name("ADDRESS:PORT");
}

void add_web_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Page");
    app.add_option_function<std::string>(
           "--http",
           [&options](const std::string& text) {
               options.web.address = tools::parse_address(text);  // The check has passed.
           },
           "Serve a page that shows and plays the calls at this address; a port alone belongs to "
           "127.0.0.1; port 0 takes a free port")
        ->check(tools::check_address)
        ->type_name("ADDRESS:PORT");
    app.add_option("--http-token-file", options.web.token_file,
                   "Let only those see the page who know the token in this file; needed unless "
                   "the address belongs to 127.0.0.0/8")
        ->type_name("FILE");
    app.add_option("--http-cert", options.web.certificate,
                   "Serve the page with TLS: PEM file with the certificate, its chain and its key")
        ->type_name("FILE");
}

// Returns what is wrong with these options together, or an empty text.
std::string check_web_options(const web::Settings& web) {
    if (!web.address.has_value()) {
        return web.token_file.empty() && web.certificate.empty()
                   ? std::string()
                   : "--http-token-file and --http-cert need --http";
    }
    return web.is_loopback() || !web.token_file.empty()
               ? std::string()
               : "--http: others can reach " + tools::address_text(*web.address) +
                     ", so --http-token-file is needed, too";
}

const std::string NATS_FILE = conf::default_directory + "/nats.conf";

void add_engine_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("NATS");
    EngineSettings& engine = options.engine;
    app.add_option("--nats",
                   "Send events and audio to these NATS servers, such as "
                   "nats://192.0.2.7:4222; several of one cluster separated by commas")
        ->check([](const std::string& text) {
            EngineSettings tried;
            return add_urls(tried, text, false);
        })
        ->type_name("URL")
        ->expected(1)
        ->take_all();
    app.add_option("--nats-config",
                   "File with the credentials and the further settings of the connection")
        ->type_name("FILE")
        ->default_str(NATS_FILE);
    app.add_option("--nats-chunk", engine.chunk_ms, "Length of a chunk of audio")
        ->check(between(10, 10'000))
        ->type_name("MS")
        ->capture_default_str();
    app.add_option("--nats-queue", engine.queue_mib,
                   "Memory for events that wait for NATS, and as much for audio; what does not fit "
                   "is dropped, the oldest first")
        ->check(between(1, 1'000'000))
        ->type_name("MIB")
        ->capture_default_str();
    app.add_option("--nats-spool", engine.spool,
                   "Also keep waiting events in this folder, so that they outlive the program")
        ->type_name("FOLDER");
}

// The names in the configuration file of what the command line has set.
std::vector<std::string> settings_given(const CLI::App& app) {
    std::vector<std::string> given;
    for (const auto& [option, name] : {std::pair{"--nats", "url"},
                                       {"--nats-chunk", "chunk"},
                                       {"--nats-queue", "queue"},
                                       {"--nats-spool", "spool"}}) {
        if (app.count(option) != 0) {
            given.emplace_back(name);
        }
    }
    return given;
}

// Returns what is wrong, or an empty text. The file at its usual place counts only with --nats.
std::string read_engine_options(const CLI::App& app, EngineSettings& engine) {
    const bool file_given = app.count("--nats-config") != 0;
    if (app.count("--nats") == 0 && !file_given) {
        return {};
    }
    if (app.count("--nats") != 0) {
        for (const std::string& list : app["--nats"]->results()) {
            add_urls(engine, list, false);  // The check has passed.
        }
    }
    const std::string path = file_given ? app["--nats-config"]->as<std::string>() : NATS_FILE;
    std::string error = read_settings(engine, path, file_given, settings_given(app));
    if (error.empty() && engine.urls.empty()) {
        return path + ": url is missing, and --nats is not given";
    }
    return error;
}

void add_exit_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("End of the program");
    app.add_option("--calls", options.calls, "End after N calls have ended; 0 means never")
        ->check(between(0, 1'000'000'000))
        ->type_name("N");
    app.add_option("--idle-exit", options.idle_exit_s,
                   "End after this time without a packet, also before the first one")
        ->check(seconds_between(0, 1'000'000))
        ->type_name("SECONDS");
}

void add_audio_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Audio");
    CallLimits& limits = options.limits;
    app.add_option("--rate,--sample-rate", limits.sample_rate,
                   "Sample rate of all calls (default: derived from the packets)")
        ->check(between(1000, 384000))
        ->type_name("HZ");
    app.add_option("--max-reorder", limits.reorder.packets,
                   "Packets per side that wait for an earlier one")
        ->check(between(0, 1000))
        ->type_name("N")
        ->capture_default_str();
    add_span(app, "--reorder-wait", limits.reorder.wait, "How long packets wait for an earlier one",
             seconds_between(0, 10));
    app.add_option("--max-silence", limits.max_silence_s, "Longest silence in place of one gap")
        ->check(seconds_between(0, 3600))
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_analysis_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Analysis");
    using Recording = Services::Recording;
    static const std::map<std::string, Recording> recordings = {
        {"all", Recording::ALL}, {"requested", Recording::REQUESTED}, {"none", Recording::NONE}};
    app.add_option_function<std::string>(
           "--record",
           [&options](const std::string& text) {
               options.limits.services.recording = recordings.at(text);
           },
           "Sides to record: all, requested (by the call), or none")
        ->check(CLI::IsMember(recordings).description(""))
        ->type_name("SIDES")
        ->default_str("all");
    app.add_option("--samples", options.samples,
                   "Recognise the WAV files of this folder where sample detection runs")
        ->check([](const std::string& text) {
            return text.empty() ? "a folder needs a name" : std::string();
        })
        ->type_name("FOLDER");
    analysis::ActivityOptions& activity = options.activity;
    app.add_option("--activity-level", activity.level_db,
                   "Sound below this level is not audio activity")
        ->check(number_between(-90, 0, "dB"))
        ->type_name("DB")
        ->capture_default_str();
    app.add_option("--activity-hang-over", activity.hang_over_ms,
                   "Pauses up to this length belong to the activity around them")
        ->check(between(0, 10'000))
        ->type_name("MS")
        ->capture_default_str();
    app.add_option("--activity-minimum", activity.minimum_ms, "Shorter activity is not reported")
        ->check(between(0, 10'000))
        ->type_name("MS")
        ->capture_default_str();
}

void add_call_limits(CLI::App& app, CallLimits& limits) {
    app.add_option("--max-calls", limits.max_calls,
                   "Most calls at once; packets of further calls are dropped")
        ->check(between(1, 10'000'000))
        ->type_name("N")
        ->capture_default_str();
    add_span(app, "--call-timeout", limits.idle, "End a call after this time without a packet",
             seconds_between(0.1, 86400));
    add_span(app, "--max-call-age", limits.max_age,
             "End a call that is older; later packets start a continuation",
             seconds_between(0.1, 7 * 86400));
    add_span(app, "--linger", limits.linger,
             "How long to wait for late packets after a terminate packet", seconds_between(0, 60));
}

void add_disk_limits(CLI::App& app, Options& options) {
    app.add_option("--max-open-files", options.max_open_files,
                   "Most files open at once; others are closed and opened again (default: what the "
                   "system allows)")
        ->check(between(1, 1'000'000))
        ->type_name("N");
    app.add_option(
           "--max-files", options.max_files,
           "Most files of one run; calls that could exceed it are not written; 0 means no limit")
        ->check(between(0, 1'000'000'000))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--block", options.block_kib,
                   "Audio per side that is gathered before it is written")
        ->check(between(1, 4096))
        ->type_name("KIB")
        ->capture_default_str();
    app.add_option("--write-buffer", options.write_buffer_mib,
                   "Memory for audio that waits for a slow disk; audio beyond it is lost")
        ->check(between(1, 1'000'000))
        ->type_name("MIB")
        ->capture_default_str();
    app.add_option("--exit-wait", options.exit_wait_s,
                   "How long to wait for a slow disk at the end; a second signal ends the program "
                   "at once")
        ->check(seconds_between(0, 86400))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option(
           "--sync", options.sync_s,
           "Write the folder's file system to the disk at this interval; 0 leaves it to the system")
        ->check(seconds_between(0, 86400))
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_keep_option(CLI::App& app, KeepLimits& keep) {
    app.add_option_function<std::vector<std::string>>(
           "--keep",
           [&keep](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   read_keep_limit(text, keep);  // The check has passed.
               }
           },
           "Remove the files of calls older than so many days, such as 30d, or of the oldest calls "
           "when all files take more than so many bytes, such as 200G; may be repeated")
        ->check([](const std::string& text) {
            KeepLimits any;
            return read_keep_limit(text, any);
        })
        ->type_name("LIMIT")
        ->expected(1)
        ->take_all();
}

void add_limit_options(CLI::App& app, Options& options) {
    app.option_defaults()->group("Limits");
    add_call_limits(app, options.limits);
    add_disk_limits(app, options);
    add_keep_option(app, options.keep);
    app.add_option("--receive-buffer", options.receive_buffer_mib,
                   "Receive buffer of all threads together")
        ->check(between(1, 1024))
        ->type_name("MIB")
        ->capture_default_str();
}

void add_options(CLI::App& app, Options& options) {
    add_input_options(app, options);
    add_file_options(app, options);
    add_sender_options(app, options);
    add_report_options(app, options);
    add_web_options(app, options);
    add_engine_options(app, options);
    add_end_options(app, options);
    add_exit_options(app, options);
    add_audio_options(app, options);
    add_analysis_options(app, options);
    add_limit_options(app, options);
}

// Returns what cannot be used together, or an empty text.
std::string contradiction_in(const Options& options) {
    if (options.keep.any() && !CallFileNames::can_tell(options.name)) {
        return "--keep: the names of --name need {uuid}, by which the files of calls can be told "
               "from others";
    }
    return check_web_options(options.web);
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, Options& options) {
    CLI::App app(
        "Receives the audio of calls from mod_quorvane and writes it as WAV files, one per side.\n"
        "SIGINT and SIGTERM end it with all files complete; SIGHUP opens the events file again\n"
        "and reads the folder of --samples again.",
        "quorvane-node");
    app.set_version_flag("--version", tools::version_text("quorvane-node"));
    app.formatter(std::make_shared<tools::HelpFormatter>(HELP_COLUMN));
    app.footer(
        "Exit codes:\n"
        "  0  success\n"
        "  1  a file or an event could not be written, something for NATS was lost, a command\n"
        "     after a call failed, a capture was damaged, or --idle-exit came before --calls\n"
        "  2  the command line or the configuration file for NATS is wrong\n"
        "  3  the port, the folder or the events file cannot be used");
    add_options(app, options);
    try {
        app.parse(argc, argv);
        if (!options.read.empty() && options.threads != 1) {
            throw CLI::ValidationError("--threads", "one thread reads a capture (--read)");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_FINE : EXIT_USAGE;
    }
    const std::string contradiction = contradiction_in(options);
    if (!contradiction.empty()) {
        std::cerr << contradiction << std::endl;
        return EXIT_USAGE;
    }
    if (options.threads == 0) {
        options.threads = std::min(available_cores(), MOST_THREADS);
    }
    const std::string error = read_engine_options(app, options.engine);
    if (!error.empty()) {
        std::cerr << "quorvane-node: --nats: " << error << std::endl;
        return EXIT_USAGE;
    }
    options.listen_given = app.count("--listen") != 0;
    options.listen = tools::parse_address(options.listen_text).value();  // The check has passed.
    return std::nullopt;
}

}  // namespace qv::node
