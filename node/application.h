// The media node as a whole: connects lanes and outputs, and runs until there is a reason to end.
//
// Its event loop does what concerns the whole program: signals, reports, the live view, the end.
// The lanes receive packets; with one thread, the only lane runs on this loop, too.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "node/capture_player.h"
#include "node/lanes.h"
#include "node/options.h"
#include "node/outputs.h"
#include "node/signals.h"

namespace qv::node {

class Application {
  public:
    // `errors` receives what keeps the program from starting.
    Application(const Options& options, std::ostream& errors);

    // Runs until a signal arrives or an option ends the run. Returns the exit code.
    int run();

  private:
    std::string open();
    std::string open_socket();
    void notify(const std::string& state);
    void note_end(const std::string& reason);
    void act_on_signals();
    void reload();
    void report_reloaded();
    bool keep_waiting();
    void open_calls();
    std::string open_capture();
    void listen();
    void play_capture();
    void schedule_tick();
    void tick();
    bool idle_too_long(Micros last_arrival, Micros now) const;
    bool enough_calls();
    NodeFigures figures(Micros now);
    void complete_files();
    bool all_complete();
    Micros now() const;
    int finish();

    const Options options_;
    std::ostream& errors_;
    asio::io_context loop_{1};
    asio::steady_timer timer_;
    Outputs outputs_;
    Lanes lanes_;
    std::optional<CapturePlayer> player_;  // In place of a socket, for the only lane.
    std::string address_;
    Micros began_{0};
    bool ending_ = false;
    bool ending_files_ = false;  // No more packets are taken.
    bool impatient_ = false;     // Asked once more to end.
    // What signals have asked for since act_on_signals().
    std::vector<std::string> end_reasons_;
    bool reload_wanted_ = false;
    bool waited_in_vain_ = false;  // No calls came, or the capture did not end properly.
};

}  // namespace qv::node
