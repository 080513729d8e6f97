// The figures of a run, as text and as JSON.
//
// Plain values; any thread may call it.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "host/embedded_host.h"
#include "host/report.h"
#include "tools/call/driver.h"
#include "tools/call/frame_tally.h"
#include "tools/call/latency_histogram.h"
#include "tools/call/log_view.h"
#include "tools/call/lossy_network.h"

namespace qv::tools::call {

struct Distribution {
    std::uint64_t count = 0;
    std::chrono::nanoseconds p50{};
    std::chrono::nanoseconds p90{};
    std::chrono::nanoseconds p99{};
    std::chrono::nanoseconds p999{};
    std::chrono::nanoseconds largest{};
};

Distribution distribution_of(const LatencyHistogram& histogram);

struct RunReport {
    bool outbound = false;
    std::uint32_t rate = 0;  // samples a second
    std::uint32_t frame_ms = 0;
    bool free_running = false;
    RunTotals totals;
    FrameTally::Side read;
    FrameTally::Side write;
    Distribution lateness;  // from when a frame is due until it is sent; empty when free-running
    Distribution handling;  // in the module
    LogView::Counts log;
    host::UnloadResult unload;
    NetworkFigures network;
    host::Report host;  // after the unload
};

// The problems of a run, one sentence each. Empty if there are none.
std::vector<std::string> problems_of(const RunReport& report);

// Lines for people, without the problems.
std::vector<std::string> report_lines(const RunReport& report);

// Times in seconds, sizes in bytes.
nlohmann::ordered_json report_json(const RunReport& report);

}  // namespace qv::tools::call
