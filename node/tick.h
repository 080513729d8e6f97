// The interval of the work that no packet starts: ends of calls, reports, figures.
#pragma once

#include "node/calls/types.h"

namespace qv::node {

constexpr Micros TICK{50'000};

}  // namespace qv::node
