// The command line of quorvane-call.
#pragma once

#include <switch.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/call/call_plan.h"
#include "tools/call/lossy_network.h"
#include "tools/call/module_settings.h"
#include "tools/exit_codes.h"

namespace qv::tools::call {

// Whether lines are printed for each call.
enum class CallLines { FEW_CALLS, ALWAYS, NEVER };

struct Options {
    ModuleSettings module;
    CallPlan plan;  // without its audio
    std::string read_path;
    std::string write_path;
    std::uint32_t tone_rate = 8000;  // samples per second, of calls without files
    unsigned threads = 1;            // media threads per direction
    std::optional<switch_log_level_t> show_log;
    NetworkPlan network;
    std::string json_path;
    CallLines call_lines = CallLines::FEW_CALLS;
};

// Fills `options`. Returns the exit code if the program must end at once: after --help, or after an
// error, which has been printed.
std::optional<int> parse_options(int argc, char** argv, Options& options);

// Each of the functions below throws std::invalid_argument, whose text says what is wrong.

// "30" or "20-40", in seconds.
Span parse_span(const std::string& text);
// "1.5 quorvane {uuid} features": seconds, blanks, a command.
TimedCommand parse_command(const std::string& text);
// "NAME=VALUE"; the value may be empty.
std::pair<std::string, std::string> parse_variable(const std::string& text);

}  // namespace qv::tools::call
