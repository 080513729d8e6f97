#include "tools/call/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <map>
#include <stdexcept>
#include <vector>

#include "quorvane/media_packet.h"
#include "quorvane_lib/utils_bytes.h"
#include "tools/address.h"
#include "tools/call/log_view.h"
#include "tools/call/text.h"
#include "tools/version.h"

namespace qv::tools::call {
namespace {

constexpr char DEFAULT_MEDIA_NODE[] = "127.0.0.1:40000";
constexpr double DEFAULT_TONE_SECONDS = 5;
constexpr double LONGEST_SECONDS = 30 * 86400.0;
constexpr int LONGEST_DELAY_MS = 10'000;

constexpr char ABOUT[] =
    "Places calls through mod_quorvane.so without a telephone switch: it loads the module into a\n"
    "small host of its own, plays WAV files as the two sides of each call, hangs up, and reports\n"
    "what happened. The audio goes to a media node, such as quorvane-node.";

constexpr char EXAMPLES[] =
    "Examples:\n"
    "  A call between two WAV files, to a media node on this machine:\n"
    "    quorvane-node --listen 127.0.0.1:40000 --output received &\n"
    "    quorvane-call --media-node 127.0.0.1:40000 --read caller.wav --write agent.wav\n"
    "  Features that change while the call runs:\n"
    "    quorvane-call --set quorvane_rule_id=7 --set quorvane_audio_activity=true \\\n"
    "        --api \"1.5 quorvane {uuid} audio_activity stop both\" \\\n"
    "        --api \"2.5 quorvane {uuid} features\"\n"
    "  2,000 calls of 20 to 40 seconds; 50 begin each second:\n"
    "    quorvane-call --calls 2000 --rate 50 --duration 20-40 --repeat \\\n"
    "        --read caller.wav --write agent.wav --json figures.json\n"
    "  Frames that need several datagrams, and the warnings that the module logs:\n"
    "    quorvane-call --sample-rate 48000 --frame-ms 40 --duration 1 --show-log WARNING\n"
    "  A network that loses 2 % of the datagrams and delays each by 20 to 80 ms:\n"
    "    quorvane-call --media-node 127.0.0.1:40000 --lose 2 --delay 20-80\n"
    "  A host that refuses the module's media bug:\n"
    "    quorvane-call --fault bug-refused --show-log DEBUG\n";

constexpr char EXIT_CODES[] =
    "Exit codes:\n"
    "  0  success\n"
    "  1  something failed during the calls: a call was not tapped, or was cut short by a signal;\n"
    "     an API command failed or came too late; the module logged an error, altered a frame,\n"
    "     or did not release something; or nobody listens at the media node's address\n"
    "     (only with --check or another network option)\n"
    "  2  the command line is wrong, or a file cannot be used\n"
    "  3  the module cannot be read, configured or loaded\n";

using Parser = std::function<void(const std::string&)>;

// Turns the parser's exception into an error of the option.
void parse_for(const std::string& option, const Parser& parse, const std::string& text) {
    try {
        parse(text);
    } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError(option.substr(option.find("--")), error.what());
    }
}

// Adds an option with a parser for its text.
CLI::Option* add_parsed(CLI::App& app, const std::string& name, const std::string& help,
                        const Parser& parse) {
    return app.add_option_function<std::string>(
        name, [name, parse](const std::string& text) { parse_for(name, parse, text); }, help);
}

// Adds such an option that may be repeated.
CLI::Option* add_repeated(CLI::App& app, const std::string& name, const std::string& help,
                          const Parser& parse) {
    const auto parse_all = [name, parse](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            parse_for(name, parse, text);
        }
    };
    return app.add_option_function<std::vector<std::string>>(name, parse_all, help)
        ->allow_extra_args(false);
}

CLI::Option* add_module_option(CLI::App& app, Options& options, const std::string& flag,
                               const std::string& name, const std::string& help) {
    const auto add = [&options, name](const std::string& text) {
        options.module.options.emplace_back(name, text);
    };
    return add_parsed(app, flag, help, add)->type_name("TEXT")->group("Module");
}

// Adds an option with limits, which the help shows with their units.
template <typename Number>
CLI::Validator between(Number least, Number most) {
    return CLI::Range(least, most).description("");
}

std::string check_uuid(const std::string& text) {
    unsigned char bytes[media::UUID_SIZE];
    if (!utils::bytes::decode_uuid(text.c_str(), bytes, tag::direct_update_t())) {
        return "'" + text + "' is no UUID";
    }
    return {};
}

// Compares only the beginning of the text, as the module does; an empty text is none.
std::string check_feature(const std::string& text) {
    if (text.empty()) {
        return {};
    }
    for (const std::string_view word : {"true", "enabled", "inactive", "orig", "term"}) {
        if (text.compare(0, word.size(), word) == 0) {
            return {};
        }
    }
    return "'" + text +
           "' is no feature text: true, enabled, inactive, originator, orig, terminator, term, "
           "orig::VALUE or term::VALUE";
}

void add_module_options(CLI::App& app, Options& options) {
    app.add_option("-m,--module", options.module.module_path,
                   "The module (default: mod_quorvane.so beside this program,\n"
                   "else the installed one)")
        ->type_name("PATH")
        ->group("Module");
    app.add_option("--config", options.module.config_file,
                   "Its configuration file; the options below override it")
        ->type_name("FILE")
        ->group("Module");
    add_module_option(app, options, "-n,--media-node", "media_node",
                      "Media node that receives the audio (default:\n"
                      "that of the configuration file, or 127.0.0.1:40000\n"
                      "without such a file)")
        ->check(check_destination)
        ->type_name("ADDRESS:PORT");
    add_module_option(
        app, options, "--log-level", "log_level",
        "Most detailed level that the module logs: ERROR,\nWARNING, INFO, DEBUG or TRACE")
        ->check(CLI::IsMember({"ERROR", "WARNING", "INFO", "DEBUG", "TRACE"}).description(""))
        ->type_name("LEVEL");
    add_module_option(app, options, "--default-audio-activity", "default_audio_activity",
                      "Audio activity detection of calls that do not set\n"
                      "quorvane_audio_activity")
        ->check(check_feature);
    add_module_option(app, options, "--default-detection", "default_detection",
                      "Sample detection of calls that do not set\nquorvane_detection")
        ->check(check_feature);
    add_module_option(app, options, "--dump-events", "dump_events",
                      "Host events copied into the log: none, all, channel\nor channel-short")
        ->check(CLI::IsMember({"none", "all", "channel", "channel-short"}).description(""));
    static const std::map<std::string, ConfigPlace> places = {
        {"auto", ConfigPlace::AUTOMATIC},
        {"private", ConfigPlace::PRIVATE_ETC},
        {"relocated", ConfigPlace::RELOCATED}};
    // Not a CLI::CheckedTransformer, because its error message shows the numbers behind the
    // names.
    app.add_option_function<std::string>(
           "--config-place",
           [&options](const std::string& name) { options.module.place = places.at(name); },
           "Where the module finds its configuration. private:\n"
           "in a private view of /etc; relocated: in a folder\n"
           "that the build in relocated/ beside the module reads;\n"
           "auto: private if possible, else relocated (default)")
        ->check(CLI::IsMember({"auto", "private", "relocated"}).description(""))
        ->type_name("PLACE")
        ->group("Module");
}

void add_audio_options(CLI::App& app, Options& options) {
    CallPlan& plan = options.plan;
    app.add_option("-r,--read", options.read_path,
                   "Read leg, what the party on the channel says: a mono\n"
                   "PCM WAV file of 8 to 48 kHz")
        ->type_name("WAV")
        ->group("Audio");
    app.add_option("-w,--write", options.write_path,
                   "Write leg, what that party hears. A leg without a file\n"
                   "has no frames; without both files, each leg is a tone\n"
                   "of 5 s")
        ->type_name("WAV")
        ->group("Audio");
    add_parsed(app, "-t,--duration,--length",
               "Length of each call's audio; MIN-MAX draws a random\nlength per call (default: "
               "each file once)",
               [&plan](const std::string& text) { plan.schedule.length_s = parse_span(text); })
        ->type_name("SECONDS")
        ->group("Audio");
    app.add_flag_callback(
           "--repeat", [&plan] { plan.afterwards = Afterwards::REPEAT; },
           "Repeat a file that is shorter than --duration\n(without it: silence follows)")
        ->group("Audio");
    app.add_option("--frame-ms", plan.frame_ms, "Length of a frame, 10 to 120")
        ->check(between(10, 120))
        ->type_name("MS")
        ->capture_default_str()
        ->group("Audio");
    app.add_option("--sample-rate", options.tone_rate, "Sample rate of the tones, 8000 to 48000")
        ->check(between(MIN_SAMPLE_RATE, MAX_SAMPLE_RATE))
        ->type_name("HZ")
        ->capture_default_str()
        ->group("Audio");
}

void add_call_options(CLI::App& app, Options& options) {
    CallPlan& plan = options.plan;
    app.add_option("-d,--direction", "Direction as the switch sees it: inbound or outbound")
        ->check(CLI::IsMember({"inbound", "outbound"}).description(""))
        ->each([&plan](const std::string& text) { plan.outbound = text == "outbound"; })
        ->type_name("WAY")
        ->default_str("inbound")
        ->group("Calls");
    add_repeated(
        app, "-s,--set",
        "Set a channel variable; {uuid} and {n} stand for the\n"
        "call's UUID and number. sip_call_id is\n"
        "{uuid}@quorvane-call unless you set it here. An empty\n"
        "value leaves the variable unset. Audio activity and\n"
        "sample detection, including the defaults above, have\n"
        "no effect without quorvane_rule_id=N",
        [&plan](const std::string& text) { plan.variables.push_back(parse_variable(text)); })
        ->type_name("NAME=VALUE")
        ->group("Calls");
    app.add_option("-u,--uuid", plan.uuid, "UUID of a single call (default: a random one)")
        ->check(check_uuid)
        ->type_name("UUID")
        ->group("Calls");
    app.add_option("-c,--calls", plan.schedule.calls, "Number of calls")
        ->check(between(1, 1'000'000))
        ->type_name("N")
        ->capture_default_str()
        ->group("Calls");
    app.add_option("--rate", plan.schedule.rate, "Number of calls that begin each second")
        ->check(between(0.001, 100'000.0))
        ->type_name("N")
        ->capture_default_str()
        ->group("Calls");
    app.add_option("--concurrent", plan.concurrent, "Most calls at once; the others wait")
        ->check(between(1, 1'000'000))
        ->type_name("N")
        ->group("Calls");
    app.add_option("--seed", plan.schedule.seed,
                   "Seed of the random lengths, of the moments at which\nthe frames of many calls "
                   "fall due, and of what the\nnetwork does")
        ->type_name("N")
        ->capture_default_str()
        ->group("Calls");
}

void add_event_options(CLI::App& app, Options& options) {
    CallPlan& plan = options.plan;
    add_repeated(app, "-a,--api",
                 "Run an API command for each call, SECONDS after the\n"
                 "call begins; it may contain {uuid} and {n}",
                 [&plan](const std::string& text) { plan.commands.push_back(parse_command(text)); })
        ->type_name("\"SECONDS COMMAND\"")
        ->group("Events");
    app.add_option("--hangup", plan.hangup_s, "Hang up after this time, even if audio is left")
        ->check(between(0.0, LONGEST_SECONDS))
        ->type_name("SECONDS")
        ->group("Events");
    app.add_option("--tap-after", plan.tap_after_s,
                   "Run the module's application and begin the audio this\n"
                   "long after the call begins, so that API commands can\n"
                   "come first")
        ->check(between(0.0, LONGEST_SECONDS))
        ->type_name("SECONDS")
        ->group("Events");
    add_repeated(app, "-f,--fault",
                 "Make the host fail, see below: from before the module\n"
                 "is loaded, or from and until some seconds of the run",
                 [&plan](const std::string& text) { plan.faults.push_back(parse_fault(text)); })
        ->type_name("NAME[@FROM[-UNTIL]]")
        ->group("Events");
}

void add_pace_options(CLI::App& app, Options& options) {
    app.add_flag("--free-running", options.plan.free_running,
                 "Play frames as fast as the module takes them")
        ->group("Pace");
    app.add_option("--threads", options.threads, "Media threads per direction")
        ->check(between(1, 256))
        ->type_name("N")
        ->capture_default_str()
        ->group("Pace");
    app.add_flag("--own-threads", options.plan.own_threads,
                 "Use two media threads per call instead")
        ->group("Pace");
}

double percent_in(const std::string& text) {
    const auto percent = parse_number(text);
    // So written, "nan" is refused.
    if (!percent || !(*percent >= 0 && *percent <= 100)) {
        throw std::invalid_argument("'" + text + "' is no number from 0 to 100");
    }
    return *percent;
}

Span delay_in(const std::string& text) {
    const auto dash = text.find('-');
    const auto min = parse_number(text.substr(0, dash));
    const auto max = dash == std::string::npos ? min : parse_number(text.substr(dash + 1));
    if (!min || !max || !(*min >= 0 && *min <= *max && *max <= LONGEST_DELAY_MS)) {
        throw std::invalid_argument("'" + text + "' is no delay: milliseconds from 0 to " +
                                    std::to_string(LONGEST_DELAY_MS) + ", or MIN-MAX");
    }
    return {*min, *max};
}

void add_network_options(CLI::App& app, Options& options) {
    NetworkPlan& network = options.network;
    add_parsed(app, "--lose", "Lose this share of the datagrams on the way to the\nmedia node",
               [&network](const std::string& text) { network.lose_percent = percent_in(text); })
        ->type_name("PERCENT")
        ->group("Network");
    add_parsed(
        app, "--duplicate", "Pass this share of them on twice",
        [&network](const std::string& text) { network.duplicate_percent = percent_in(text); })
        ->type_name("PERCENT")
        ->group("Network");
    app.add_option("--reorder", network.reorder_packets,
                   "Pass each data packet on up to N packets of its side\nlater")
        ->check(between(0, 1000))
        ->type_name("N")
        ->group("Network");
    add_parsed(app, "--delay", "Delay each datagram; MIN-MAX draws a random delay for\neach",
               [&network](const std::string& text) { network.delay_ms = delay_in(text); })
        ->type_name("MS")
        ->group("Network");
    app.add_flag("--check", network.check,
                 "Fail if nobody listens at the media node's address;\neach of the options above "
                 "does this as well")
        ->group("Network");
}

void add_output_options(CLI::App& app, Options& options) {
    add_parsed(app, "--show-log",
               "Show the log up to this level: CRIT, ERR, WARNING,\n"
               "NOTICE, INFO or DEBUG (default: the first 10 errors)",
               [&options](const std::string& text) {
                   options.show_log = level_of(text);
                   if (!options.show_log) {
                       throw std::invalid_argument("'" + text + "' is no level of the host");
                   }
               })
        ->type_name("LEVEL")
        ->group("Output");
    app.add_option("--json", options.json_path, "Also write the figures to this file")
        ->type_name("FILE")
        ->group("Output");
    auto* verbose = app.add_flag_callback(
        "-v,--verbose", [&options] { options.call_lines = CallLines::ALWAYS; },
        "Print lines for each call (default: for up to 10 calls)");
    auto* quiet = app.add_flag_callback(
        "-q,--quiet", [&options] { options.call_lines = CallLines::NEVER; },
        "Print only the figures");
    verbose->group("Output");
    quiet->group("Output")->excludes(verbose);
}

std::string fault_text() {
    std::string text = "Faults of the host:\n";
    for (const FaultHelp& help : fault_help()) {
        text.append("  ")
            .append(help.name)
            .append(28 - help.name.size(), ' ')
            .append(help.what)
            .append("\n");
    }
    return text;
}

bool has_option(const ModuleSettings& module, const std::string& name) {
    return std::any_of(module.options.begin(), module.options.end(),
                       [&name](const auto& option) { return option.first == name; });
}

// Checks options against each other and sets the defaults that depend on others.
void complete(const CLI::App& app, Options& options) {
    CallPlan& plan = options.plan;
    const bool files = !options.read_path.empty() || !options.write_path.empty();
    if (!plan.uuid.empty() && plan.schedule.calls > 1) {
        throw CLI::ValidationError("--uuid", "is for a single call, not for --calls " +
                                                 std::to_string(plan.schedule.calls));
    }
    if (files && app.count("--sample-rate") > 0) {
        throw CLI::ValidationError("--sample-rate", "is for tones; a WAV file has its own");
    }
    if (!files && !plan.schedule.length_s) {
        plan.schedule.length_s = Span{DEFAULT_TONE_SECONDS, DEFAULT_TONE_SECONDS};
    }
    if (!options.module.config_file && !has_option(options.module, "media_node")) {
        options.module.options.emplace_back("media_node", DEFAULT_MEDIA_NODE);
    }
    if (options.network.wanted() && media_node_of(options.module).empty()) {
        throw CLI::ValidationError("--media-node",
                                   "is needed beside --config by --lose, "
                                   "--duplicate, --reorder, --delay, --check");
    }
    plan.variables.insert(plan.variables.begin(), {"sip_call_id", "{uuid}@quorvane-call"});
    plan.schedule.frame_time = std::chrono::milliseconds(plan.frame_ms);
    std::stable_sort(plan.commands.begin(), plan.commands.end(),
                     [](const auto& one, const auto& other) { return one.at_s < other.at_s; });
}

double seconds_in(const std::string& text, const std::string& whole) {
    const auto seconds = parse_number(text);
    if (!seconds || *seconds < 0 || *seconds > LONGEST_SECONDS) {
        throw std::invalid_argument("'" + text + "' in '" + whole + "' is no time in seconds");
    }
    return *seconds;
}

}  // namespace

Span parse_span(const std::string& text) {
    const auto dash = text.find('-');
    const double min = seconds_in(text.substr(0, dash), text);
    const double max = dash == std::string::npos ? min : seconds_in(text.substr(dash + 1), text);
    if (min <= 0) {
        throw std::invalid_argument("'" + text + "' is no length: it must be above 0");
    }
    if (max < min) {
        throw std::invalid_argument("'" + text + "' is no length: MIN is above MAX");
    }
    return {min, max};
}

TimedCommand parse_command(const std::string& text) {
    const auto blank = text.find(' ');
    const auto begin = text.find_first_not_of(' ', blank);
    if (blank == std::string::npos || begin == std::string::npos) {
        throw std::invalid_argument("'" + text +
                                    "' is no time and command, such as "
                                    "\"1.5 quorvane {uuid} features\"");
    }
    return {seconds_in(text.substr(0, blank), text), text.substr(begin)};
}

std::pair<std::string, std::string> parse_variable(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw std::invalid_argument("'" + text + "' is not NAME=VALUE");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

std::optional<int> parse_options(int argc, char** argv, Options& options) {
    CLI::App app(ABOUT, "quorvane-call");
    app.set_version_flag("--version", version_text("quorvane-call"));
    app.get_formatter()->column_width(36);
    add_module_options(app, options);
    add_audio_options(app, options);
    add_call_options(app, options);
    add_event_options(app, options);
    add_network_options(app, options);
    add_pace_options(app, options);
    add_output_options(app, options);
    app.footer(fault_text() + "\n" + EXIT_CODES + "\n" + EXAMPLES);
    try {
        app.parse(argc, argv);
        complete(app, options);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_FINE : EXIT_USAGE;
    }
    return std::nullopt;
}

}  // namespace qv::tools::call
