// The command after each call (--on-end): runs it, reports its failures, and waits for it at the
// end.
//
// Belongs to the thread of the program's event loop. The calls report to listener(), from any
// thread.
#pragma once

#include "node/outputs/patience.h"
#include "node/report/end_command.h"
#include "node/report/line_report.h"

namespace qv::node {

class CommandOutput {
  public:
    // The lines must outlive this object.
    CommandOutput(const EndCommand::Options& options, LineReport& lines);

    CallListener* listener() { return &command_; }

    // Collects commands that have ended and starts those that wait. Call it several times a second.
    void poll() { command_.poll(); }
    // Waits some seconds for all commands, and reports the calls that got none.
    void finish(const Patience& patience);

    // Whether a command failed or a call got none. Known after finish().
    bool failed() const { return failed_; }

  private:
    LineReport& lines_;
    EndCommand command_;
    bool failed_ = false;
};

}  // namespace qv::node
