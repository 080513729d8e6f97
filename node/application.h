// The receiver as a whole: wires socket, calls and outputs together and runs them on one event
// loop until there is a reason to end.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <optional>
#include <ostream>
#include <string>

#include "node/calls/call_table.h"
#include "node/ingest/capture.h"
#include "node/ingest/intake.h"
#include "node/ingest/receiver.h"
#include "node/options.h"
#include "node/outputs.h"
#include "node/signals.h"

namespace qv::node {

class Application {
  public:
    // `out` gets lines or events, `errors` what keeps the program from starting, and the
    // lines when `out` gets events.
    Application(const Options& options, std::ostream& out, std::ostream& errors);

    // Runs until a signal or until the options say so; returns the exit code.
    int run();

  private:
    std::string open();
    std::string open_socket();
    void notify(const std::string& state);
    void reload();
    void open_calls();
    std::string open_capture();
    void listen();
    void read_capture();
    void pass_time(Micros until);
    void report_capture();
    void schedule_tick();
    void tick();
    bool idle_too_long(Micros now) const;
    bool enough_calls() const;
    NodeFigures figures(Micros now);
    int finish();

    const Options options_;
    std::ostream& errors_;
    asio::io_context loop_{1};
    asio::steady_timer timer_;
    Outputs outputs_;
    std::unique_ptr<CallTable> calls_;
    std::unique_ptr<Intake> intake_;
    Receiver receiver_;
    std::optional<Capture> capture_;  // That is read in place of listening.
    Micros now_{0};                   // Of the capture, as far as the calls know.
    std::string address_;
    Micros began_{0};
    bool waited_in_vain_ = false;  // For calls that never came, or a capture's end.
};

}  // namespace qv::node
