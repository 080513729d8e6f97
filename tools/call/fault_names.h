// The names of the embedded host's faults on the command line.
//
// No state; any thread may call it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/faults.h"

namespace qv::tools::call {

// A fault and the time in which it is on.
struct FaultSpan {
    std::optional<host::Fault> fault;  // none: a header is hidden
    std::string header;                // name of the hidden header
    std::optional<double> from_s;      // none: since before the module is loaded
    std::optional<double> until_s;     // none: to the end
};

// Reads NAME, NAME@FROM or NAME@FROM-UNTIL, with times in seconds since the first call
// began; NAME may be "hide-header:HEADER". Throws std::invalid_argument, whose text says what
// is wrong.
FaultSpan parse_fault(const std::string& text);

std::string name_of(const FaultSpan& span);

// Switches the fault of the span on or off.
void switch_fault(host::Faults& faults, const FaultSpan& span, bool on);

// The name and the effect of a fault, for the help.
struct FaultHelp {
    std::string name;
    std::string what;
};
const std::vector<FaultHelp>& fault_help();

}  // namespace qv::tools::call
