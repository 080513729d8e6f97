// The lines at the end of a run: calls, packets, losses and their reasons. No state; any thread may
// call it.
#pragma once

#include <string>

#include "node/report/figures.h"
#include "node/report/line_report.h"

namespace qv::node {

// Events that could not be written.
struct LostEvents {
    std::uint64_t count = 0;
    std::string path;
};

void print_summary(LineReport& lines, const NodeFigures& figures, const LostEvents& lost_events);

}  // namespace qv::node
