// The live view on the terminal: shows its frames, passes on the keys, and holds back the lines
// while it owns the terminal.
//
// Belongs to the thread of the program's event loop, but any thread may report a file error.
#pragma once

#include <functional>
#include <string>

#include "node/report/call_snapshot.h"
#include "node/report/console.h"
#include "node/report/figures.h"
#include "node/report/keys.h"
#include "node/report/line_report.h"
#include "node/report/live_view.h"
#include "node/report/terminal.h"

namespace qv::node {

class LiveOutput {
  public:
    // The console and its lines must outlive this object. `calls` returns those to show.
    LiveOutput(Console& console, LineReport& lines, std::function<AllCalls()> calls)
        : console_(console), lines_(lines), calls_(std::move(calls)), terminal_(console) {}

    // Takes the terminal.
    void begin();
    // Acts on keys and shows a frame when it is time. Call it several times a second.
    void update(const NodeFigures& figures, Micros now);
    // The program ends when that is done.
    void set_ending(const std::string& waits_for) { view_.set_ending(waits_for); }
    // Gives the terminal back, with the lines that were held.
    void finish();

    void report_file_error(const std::string& error) { view_.report_file_error(error); }
    // Whether a key has asked for the end of the program since the last call.
    bool take_quit() { return view_.take_quit(); }

  private:
    Console& console_;
    LineReport& lines_;
    const std::function<AllCalls()> calls_;
    Terminal terminal_;
    LiveView view_;
    KeyReader keys_;
    Micros last_frame_{0};
};

}  // namespace qv::node
