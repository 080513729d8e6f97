#include "tools/call/report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/call/text.h"

namespace qv::tools::call {
namespace {

using Json = nlohmann::ordered_json;

std::uint64_t data_packets(const RunReport& report) {
    return report.read.packets + report.write.packets;
}

// Includes one start and one terminate packet per tapped call.
std::uint64_t least_packets(const RunReport& report) {
    return data_packets(report) + 2 * report.totals.calls_tapped;
}

double cpu_seconds(const RunTotals& totals) {
    return totals.user_cpu_s + totals.system_cpu_s;
}

std::uint64_t memory_growth(const RunTotals& totals) {
    return totals.memory_most - std::min(totals.memory_most, totals.memory_before);
}

double divided(double value, double by) {
    return by > 0 ? value / by : 0;
}

std::string calls_line(const RunTotals& totals) {
    std::string line = counted(totals.calls_begun, "call");
    if (totals.calls_begun != totals.calls_planned) {
        line += " of " + grouped(totals.calls_planned);
    }
    line += ", " + grouped(totals.calls_tapped) + " tapped; at most " +
            grouped(totals.most_at_once) + " at once; " + duration_text(totals.elapsed_s) +
            " in all";
    if (totals.calls_cut > 0) {
        line += "; " + grouped(totals.calls_cut) + " cut short";
    }
    return line;
}

std::string side_text(const char* name, const char* side, const FrameTally::Side& figures) {
    return std::string(name) + " (" + side + ") " + grouped(figures.frames);
}

std::string frames_line(const RunReport& report) {
    const char* first = report.outbound ? "terminator" : "originator";
    const char* second = report.outbound ? "originator" : "terminator";
    return side_text("read", first, report.read) + ", " + side_text("write", second, report.write) +
           "; " + size_text(static_cast<double>(report.read.bytes + report.write.bytes)) +
           " of audio, " + grouped(report.rate) + " Hz, " + std::to_string(report.frame_ms) +
           " ms frames";
}

std::string packets_line(const RunReport& report) {
    return grouped(data_packets(report)) + " of audio, " + grouped(least_packets(report)) +
           " with start and terminate packets: the media node should receive these";
}

std::string network_line(const NetworkFigures& network) {
    return counted(network.datagrams, "datagram") + " to " + network.media_node + ": " +
           grouped(network.lost) + " lost (" + grouped(network.lost_data) + " of audio), " +
           grouped(network.duplicated) + " duplicated, " + grouped(network.reordered) +
           " reordered";
}

std::string distribution_line(const Distribution& times) {
    return "50 % " + short_time(times.p50) + ", 90 % " + short_time(times.p90) + ", 99 % " +
           short_time(times.p99) + ", 99.9 % " + short_time(times.p999) + ", largest " +
           short_time(times.largest);
}

std::string cpu_line(const RunTotals& totals) {
    const double cpu = cpu_seconds(totals);
    return fixed(cpu, 2) + " s (" + fixed(totals.user_cpu_s, 2) + " s user, " +
           fixed(totals.system_cpu_s, 2) +
           " s system): " + fixed(divided(cpu, totals.elapsed_s) * 100, 1) + " % of a core, " +
           short_time(std::chrono::nanoseconds(
               static_cast<std::int64_t>(divided(cpu, totals.call_seconds) * 1e9))) +
           " per second of a call";
}

std::string memory_line(const RunTotals& totals) {
    const auto growth = static_cast<double>(memory_growth(totals));
    return size_text(static_cast<double>(totals.memory_most)) + " at most; " + size_text(growth) +
           " more than before the calls, " +
           size_text(divided(growth, static_cast<double>(totals.most_at_once))) + " per call";
}

std::string commands_line(const RunTotals& totals) {
    std::string line = grouped(totals.commands_run) + " run";
    if (totals.commands_failed > 0) {
        line += ", " + grouped(totals.commands_failed) + " failed";
    }
    if (totals.commands_missed > 0) {
        line += ", " + grouped(totals.commands_missed) + " too late for their calls";
    }
    return line;
}

std::string log_line(const LogView::Counts& log) {
    return counted(log.lines, "line") + ", " + counted(log.warnings, "warning") + ", " +
           counted(log.errors, "error");
}

void add_if(std::vector<std::string>& problems, std::uint64_t count, const std::string& noun,
            const std::string& what) {
    if (count > 0) {
        problems.push_back(counted(count, noun) + " " + what);
    }
}

std::string first_failed_text(const std::optional<FailedCommand>& failed) {
    if (!failed) {
        return {};
    }
    const std::string answer = failed->answer.substr(0, failed->answer.find('\n'));
    return "; the first, of call " + grouped(failed->call) + ": '" + failed->command + "' was " +
           (answer.empty() ? "not answered" : "answered '" + answer + "'");
}

// The problems with what the module has not released.
std::vector<std::string> left_over(const RunReport& report) {
    std::vector<std::string> left;
    add_if(left, report.host.read_locks_held, "session lock", "still held");
    add_if(left, report.host.bugs_attached, "media bug", "still attached");
    // The host drops what an unmapped module has registered.
    add_if(left, report.host.bindings_alive + report.unload.bindings_dropped, "event binding",
           "still there");
    add_if(left, report.host.sessions_destroyed_locked, "call", "ended under a lock");
    add_if(left, report.host.unlocks_without_lock, "lock", "released without being held");
    add_if(left, report.host.frames_altered, "frame", "altered by the module");
    if (report.unload.unloaded && !report.unload.left_memory) {
        left.push_back("the module stayed in memory: it still counts media bugs");
    }
    return left;
}

std::string host_line(const RunReport& report) {
    const auto left = left_over(report);
    return left.empty() ? "no frame altered; no lock, media bug, event binding or call left"
                        : joined(left, "; ");
}

double seconds_of_time(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

Json side_json(const FrameTally::Side& side) {
    return {{"frames", side.frames},
            {"bytes", side.bytes},
            {"tapped_frames", side.tapped_frames},
            {"packets_expected", side.packets}};
}

Json distribution_json(const Distribution& times) {
    return {{"count", times.count},
            {"p50_s", seconds_of_time(times.p50)},
            {"p90_s", seconds_of_time(times.p90)},
            {"p99_s", seconds_of_time(times.p99)},
            {"p99.9_s", seconds_of_time(times.p999)},
            {"max_s", seconds_of_time(times.largest)}};
}

Json calls_json(const RunTotals& totals) {
    return {{"planned", totals.calls_planned}, {"begun", totals.calls_begun},
            {"tapped", totals.calls_tapped},   {"ended", totals.calls_ended},
            {"cut", totals.calls_cut},         {"most_at_once", totals.most_at_once},
            {"seconds", totals.call_seconds}};
}

Json commands_json(const RunTotals& totals) {
    Json json = {{"run", totals.commands_run},
                 {"failed", totals.commands_failed},
                 {"missed", totals.commands_missed},
                 {"first_failed", nullptr}};
    if (const auto& failed = totals.first_failed) {
        json["first_failed"] = {
            {"call", failed->call}, {"command", failed->command}, {"answer", failed->answer}};
    }
    return json;
}

Json cpu_json(const RunTotals& totals) {
    return {{"user_s", totals.user_cpu_s},
            {"system_s", totals.system_cpu_s},
            {"per_call_second_s", divided(cpu_seconds(totals), totals.call_seconds)}};
}

Json memory_json(const RunTotals& totals) {
    return {{"before_bytes", totals.memory_before},
            {"most_bytes", totals.memory_most},
            {"per_call_bytes", divided(static_cast<double>(memory_growth(totals)),
                                       static_cast<double>(totals.most_at_once))}};
}

Json host_json(const host::Report& host) {
    return {{"frames_altered", host.frames_altered},
            {"read_locks_taken", host.read_locks_taken},
            {"read_locks_held", host.read_locks_held},
            {"unlocks_without_lock", host.unlocks_without_lock},
            {"sessions_destroyed_locked", host.sessions_destroyed_locked},
            {"bugs_added", host.bugs_added},
            {"bugs_closed", host.bugs_closed},
            {"bugs_refused", host.bugs_refused},
            {"bugs_attached", host.bugs_attached},
            {"bindings_alive", host.bindings_alive},
            {"events_delivered", host.events_delivered}};
}

Json unload_json(const host::UnloadResult& unload) {
    return {{"unloaded", unload.unloaded},
            {"gone_from_memory", unload.left_memory},
            {"bindings_dropped", unload.bindings_dropped}};
}

}  // namespace

Distribution distribution_of(const LatencyHistogram& histogram) {
    return {histogram.count(),        histogram.percentile(50),   histogram.percentile(90),
            histogram.percentile(99), histogram.percentile(99.9), histogram.largest()};
}

std::vector<std::string> problems_of(const RunReport& report) {
    const RunTotals& totals = report.totals;
    std::vector<std::string> problems;
    add_if(problems, totals.calls_cut, "call", "cut short by a signal");
    add_if(problems, totals.calls_begun - totals.calls_tapped, "call", "not tapped");
    add_if(problems, totals.commands_failed, "API command",
           "failed" + first_failed_text(totals.first_failed));
    add_if(problems, totals.commands_missed, "API command", "too late for the call");
    add_if(problems, report.log.errors, "error", "in the log");
    if (report.network.refused > 0) {
        problems.push_back("nobody listens on " + report.network.media_node);
    }
    add_if(problems, report.network.overflowed, "datagram",
           "lost in this program, which was too slow to pass them on");
    for (const std::string& thing : left_over(report)) {
        problems.push_back(thing);
    }
    if (!report.unload.error.empty()) {
        problems.push_back("the module could not be unloaded: " + report.unload.error);
    }
    return problems;
}

std::vector<std::string> report_lines(const RunReport& report) {
    const RunTotals& totals = report.totals;
    std::vector<std::string> lines = {
        "Calls     " + calls_line(totals),
        "Frames    " + frames_line(report),
        "Packets   " + packets_line(report),
    };
    if (report.network.used) {
        lines.push_back("Network   " + network_line(report.network));
    }
    if (report.lateness.count > 0) {
        lines.push_back("Lateness  " + distribution_line(report.lateness) + " (due until sent)");
    }
    if (report.handling.count > 0) {
        lines.push_back("Handling  " + distribution_line(report.handling) + " (in the module)");
    }
    if (totals.commands_run + totals.commands_missed > 0) {
        lines.push_back("Commands  " + commands_line(totals));
    }
    lines.push_back("CPU       " + cpu_line(totals));
    lines.push_back("Memory    " + memory_line(totals));
    lines.push_back("Log       " + log_line(report.log));
    lines.push_back("Left over " + host_line(report));
    return lines;
}

nlohmann::ordered_json network_json(const NetworkFigures& network) {
    if (!network.used) {
        return nullptr;
    }
    return {{"media_node", network.media_node},
            {"datagrams", network.datagrams},
            {"lost", network.lost},
            {"lost_data", network.lost_data},
            {"duplicated", network.duplicated},
            {"reordered", network.reordered},
            {"overflowed", network.overflowed},
            {"refused", network.refused}};
}

nlohmann::ordered_json report_json(const RunReport& report) {
    const RunTotals& totals = report.totals;
    return {{"elapsed_s", totals.elapsed_s},
            {"direction", report.outbound ? "outbound" : "inbound"},
            {"sample_rate", report.rate},
            {"frame_ms", report.frame_ms},
            {"pace", report.free_running ? "free-running" : "paced"},
            {"calls", calls_json(totals)},
            {"read", side_json(report.read)},
            {"write", side_json(report.write)},
            {"data_packets_expected", data_packets(report)},
            {"lateness", distribution_json(report.lateness)},
            {"handling", distribution_json(report.handling)},
            {"commands", commands_json(totals)},
            {"cpu", cpu_json(totals)},
            {"memory", memory_json(totals)},
            {"log",
             {{"lines", report.log.lines},
              {"warnings", report.log.warnings},
              {"errors", report.log.errors}}},
            {"host", host_json(report.host)},
            {"module", unload_json(report.unload)},
            {"network", network_json(report.network)},
            {"problems", problems_of(report)}};
}

}  // namespace qv::tools::call
