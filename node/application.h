// The media node as a whole. main() runs it; whatever it consists of stays out of this header,
// which is therefore cheap to include.
#pragma once

#include <ostream>

#include "node/options.h"

namespace qv::node {

// Runs the media node until a signal arrives or an option ends the run. `errors` receives what
// keeps it from starting. Returns the exit code of the program.
int run_media_node(const Options& options, std::ostream& errors);

}  // namespace qv::node
