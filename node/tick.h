// How often the work is done that does not wait for a packet: ends of calls, reports, figures.
#pragma once

#include "node/calls/types.h"

namespace qv::node {

constexpr Micros TICK{50'000};

}  // namespace qv::node
