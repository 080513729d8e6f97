// The faults of the embedded host as they are named on the command line.
//
// No state; any thread may call.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/faults.h"

namespace qv::tools::call {

// A fault and when it is on.
struct FaultSpan {
    std::optional<host::Fault> fault;  // none: a header is hidden
    std::string header;                // name of the hidden header
    std::optional<double> from_s;      // none: from before the module is loaded
    std::optional<double> until_s;     // none: to the end
};

// Reads NAME, NAME@FROM or NAME@FROM-UNTIL, times in seconds since the first call began;
// "hide-header:HEADER" is a name too. Throws std::invalid_argument, whose text says what
// is wrong.
FaultSpan parse_fault(const std::string& text);

std::string name_of(const FaultSpan& span);

// Switches what the span names.
void switch_fault(host::Faults& faults, const FaultSpan& span, bool on);

// A name and what it does, for the help.
struct FaultHelp {
    std::string name;
    std::string what;
};
const std::vector<FaultHelp>& fault_help();

}  // namespace qv::tools::call
