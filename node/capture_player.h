// Plays a network capture: passes its datagrams to the calls at the times when they were captured,
// and lets the time between them pass. These times are the clock of the calls and of all reports.
//
// Belongs to the thread of the program's event loop.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "node/calls/call_limits.h"
#include "node/calls/call_table.h"
#include "node/ingest/capture.h"
#include "node/report/line_report.h"

namespace qv::node {

class CapturePlayer {
  public:
    // What the program does while a capture is played.
    struct Program {
        std::function<void(Micros began)> begin;                // The time begins.
        std::function<void(const Datagram& datagram)> receive;  // Hands it to its call.
        std::function<void(Micros now)> tick;                   // Tells the calls the time.
        std::function<void(Micros now)> update;                 // Shows what has happened.
        std::function<void()> complete_files;                   // Waits a moment for files.
        std::function<void()> act;                              // Does what signals have asked for.
        std::function<bool()> goes_on;       // Whether nothing has ended the program.
        std::function<bool()> has_enough;    // Whether as many calls have ended as it wants.
        std::function<bool()> keep_waiting;  // Notes signals. Whether waits may go on.
    };

    explicit CapturePlayer(Program program) : program_(std::move(program)) {}

    // Reads the capture `path`, "-" for the standard input; of its datagrams those that went to
    // `target`, if there is one. Returns why it cannot be read, or an empty text.
    std::string open(const std::string& path, const std::optional<sockaddr_in>& target);

    // Plays the whole capture, and then waits until late packets no longer count, by its time.
    void play(CallTable& calls, const CallLimits& limits);
    // Reports what was in the capture.
    void report(LineReport& lines) const;

    // The time of the capture that the calls have reached.
    Micros now() const { return now_; }
    // Datagrams so far.
    std::uint64_t taken() const { return capture_.has_value() ? capture_->taken() : 0; }
    // Whether the capture did not end properly.
    bool damaged() const { return capture_.has_value() && !capture_->error().empty(); }

  private:
    void pass_time(CallTable& calls, Micros until);

    const Program program_;
    std::string path_;
    std::optional<Capture> capture_;
    Micros now_{0};
};

}  // namespace qv::node
