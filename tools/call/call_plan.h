// The plan of a run: its calls, their audio, their commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/call/fault_names.h"
#include "tools/call/schedule.h"
#include "tools/call/side_source.h"
#include "tools/call/wav_file.h"

namespace qv::tools::call {

struct TimedCommand {
    double at_s = 0;   // since the call began
    std::string text;  // an API command; may hold placeholders
};

struct CallPlan {
    SchedulePlan schedule;
    std::size_t concurrent = 0;  // limit of calls at the same time; 0: none
    bool outbound = false;
    std::string uuid;  // of a single call; empty: a random one
    std::vector<std::pair<std::string, std::string>> variables;  // may hold placeholders
    std::optional<Audio> read;                                   // audio from the party
    std::optional<Audio> write;                                  // audio to the party
    Afterwards afterwards = Afterwards::SILENCE;
    std::uint32_t frame_ms = 20;
    double tap_after_s = 0;  // from the begin of the call until the application and the audio start
    std::vector<TimedCommand> commands;
    std::optional<double> hangup_s;  // since the call began
    std::vector<FaultSpan> faults;
    bool free_running = false;
    bool own_threads = false;  // two media threads per call
};

struct PlanError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Samples a second of the call's audio.
std::uint32_t rate_of(const CallPlan& plan);

// Throws PlanError when the audio cannot be played in one call: two sample rates, or
// frames larger than the host's.
void check_plan(const CallPlan& plan);

// The number of samples that a side plays in a call with these times.
std::uint64_t samples_of(const Audio& audio, const CallTimes& times);

// How long a paced run takes, unless `concurrent` delays calls.
double expected_seconds(const CallPlan& plan, const std::vector<CallTimes>& calls);

}  // namespace qv::tools::call
