// The program quorvane-call: reads the files, loads the module, runs the calls, prints the
// figures.
#pragma once

#include <atomic>
#include <fstream>
#include <optional>
#include <ostream>

#include "host/embedded_host.h"
#include "tools/call/console.h"
#include "tools/call/log_view.h"
#include "tools/call/lossy_network.h"
#include "tools/call/module_settings.h"
#include "tools/call/options.h"
#include "tools/call/report.h"

namespace qv::tools::call {

class Application {
  public:
    // `out` receives the lines. `errors` receives what keeps the program from running and, on a
    // terminal, the status line. Setting `stop` ends the run.
    Application(Options options, std::ostream& out, std::ostream& errors,
                const std::atomic<bool>& stop);

    // Returns the exit code.
    int run();

  private:
    int run_checked();
    void load_audio();
    void open_json();
    void open_network();
    int run_with_module(const PlacedConfig& config);
    RunReport run_calls(host::EmbeddedHost& host, const LogView& log, const std::string& module);
    void tell_begin(const PlacedConfig& config, std::string media_node);
    int tell_end(const RunReport& report);
    bool call_lines() const;

    Options options_;
    std::ostream& errors_;
    const std::atomic<bool>& stop_;
    Console console_;
    std::ofstream json_;
    std::optional<LossyNetwork> network_;
};

}  // namespace qv::tools::call
