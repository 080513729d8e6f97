#include "node/outputs/command_output.h"

#include <chrono>
#include <cstdint>
#include <string>

#include "node/report/text.h"

namespace qv::node {

namespace {

constexpr std::chrono::seconds COMMAND_PATIENCE{10};

}  // namespace

CommandOutput::CommandOutput(const EndCommand::Options& options, LineReport& lines)
    : lines_(lines),
      command_(options, [this](const std::string& what) { lines_.say("command failed", what); }) {}

void CommandOutput::finish(const Patience& patience) {
    std::uint64_t left = 0;
    patience.wait(COMMAND_PATIENCE, [this, &left] {
        left = command_.finish(Patience::A_MOMENT);
        return left + command_.running() == 0;
    });
    const EndCommand::Counts& counts = command_.counts();
    if (left + counts.skipped != 0) {
        lines_.say("command not run", "after " + counted(left + counts.skipped, "call"));
    }
    failed_ = left + counts.skipped + counts.failed != 0;
}

}  // namespace qv::node
