// The command line of the media node.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "node/analysis/activity_detector.h"
#include "node/audio/encoder.h"
#include "node/audio/keep_limits.h"
#include "node/calls/call_limits.h"
#include "node/engine/settings.h"
#include "node/web/settings.h"
#include "tools/exit_codes.h"
#include "tools/networks.h"

namespace qv::node {

using tools::EXIT_FINE;
using tools::EXIT_NO_START;
using tools::EXIT_TROUBLE;
using tools::EXIT_USAGE;

struct Options {
    std::string listen_text = "127.0.0.1:40000";
    sockaddr_in listen{};
    std::vector<tools::Network> allowed;  // Allowed senders. Empty: all of them.
    bool listen_given = false;
    std::string read;  // A capture to read in place of listening; "-" for the standard input.
    std::string folder = ".";
    bool overwrite = false;
    std::string name = "{uuid}";  // Pattern of the names of files.
    bool quiet = false;
    std::string events;  // File, "-" for the standard output, empty for none.
    bool every_packet = false;
    bool reports = false;                     // Send reports to the report nodes of calls
    std::vector<tools::Network> reported_to;  // in these networks. Empty: on this machine.
    bool live = false;
    AudioFormat format = AudioFormat::WAV;  // Of complete files.
    bool sidecar = false;
    bool timeline = false;
    std::optional<sockaddr_in> metrics;   // The address where metrics are served.
    bool stereo = false;                  // Also one file of both sides.
    bool resample = true;                 // Sides with different rates share that file.
    bool no_sides = false;                // No files of one side.
    bool keep_pauses = false;             // In files of one side.
    std::uint64_t calls = 0;              // End after this many calls. 0: never.
    double idle_exit_s = 0;               // End after this long without a packet. 0: never.
    int receive_buffer_mib = 64;          // Of all threads together.
    std::size_t threads = 1;              // That receive.
    std::size_t max_open_files = 0;       // 0: what the system allows.
    std::uint64_t max_files = 1'000'000;  // Of one run. 0: no limit.
    std::size_t block_kib = 32;
    std::uint64_t write_buffer_mib = 1024;  // For audio that waits for the disk.
    double exit_wait_s = 60;                // For the disk, at the end.
    std::vector<std::string> on_end;        // Command after each call. Empty: none.
    std::size_t on_end_running = 4;         // How many of them run at the same time.
    KeepLimits keep;                        // What is removed of finished calls.
    double sync_s = 0;                      // Interval between flushes to the disk. 0: none.
    EngineSettings engine;
    web::Settings web;
    std::string samples;  // Folder of references. Empty: none.
    analysis::ActivityOptions activity;
    CallLimits limits;
};

// Fills `options`. Returns the exit code if the program must end at once: after --help, or after an
// error, which has been printed.
std::optional<int> parse_options(int argc, char** argv, Options& options);

}  // namespace qv::node
