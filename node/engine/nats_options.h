// Options of the library for NATS from the settings: servers, times, credentials and TLS. No state.
#pragma once

#include <string>

#include "node/engine/nats_library.h"
#include "node/engine/settings.h"

namespace qv::node::nats {

// Limit of a request, of a connection attempt and of a write.
constexpr std::int64_t REQUEST_MS = 2000;

// Returns null, and what is wrong in `error`, if the library refuses a setting, or if a file that
// a setting names cannot be read.
Options make_options(const EngineSettings& settings, std::string& error);

}  // namespace qv::node::nats
