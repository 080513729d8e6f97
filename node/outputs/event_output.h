// The events as JSON lines in a file or on the standard output: opens the file, and again on
// SIGHUP; reports when events cannot be written and when they can be written again; waits for their
// reader at the end.
//
// Belongs to the thread of the program's event loop. The calls report to log(), from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "node/outputs/patience.h"
#include "node/outputs/reload_list.h"
#include "node/report/event_log.h"
#include "node/report/line_report.h"
#include "node/report/summary.h"
#include "node/report/text_outlet.h"

namespace qv::node {

class EventOutput {
  public:
    struct Options {
        std::string path;           // "-" for the standard output, empty for no file.
        bool every_packet = false;  // Data packets are events, too.
    };

    // The lines and the patience must outlive this object.
    EventOutput(const Options& options, LineReport& lines, const Patience& patience)
        : options_(options), lines_(lines), patience_(patience) {}

    // Returns why the file cannot be used, or an empty text.
    std::string open();
    // Passes each event to `copy`, too, also if there is no file. Call it after open() and before
    // the first event.
    void copy_to(EventLog::Copy copy);
    // The file is opened again with all that `reloads` has.
    void reopen_with(ReloadList& reloads);

    // Null if events are neither written nor copied.
    EventLog* log() { return log_.get(); }

    // Writes what waits, and reports when this begins to fail and when it works again. Call it
    // several times a second.
    void flush();
    // Waits for the reader of the events, and returns the events that were lost.
    LostEvents finish();

    // Whether events could not be written, even if only for a while.
    bool failed() const { return failed_; }

  private:
    std::size_t take(std::string_view lines);
    void report_new_file();
    void report_failure(bool failing, const std::string& error);

    const Options options_;
    LineReport& lines_;
    const Patience& patience_;
    std::unique_ptr<TextOutlet> outlet_;  // Null without a file.
    std::unique_ptr<EventLog> log_;
    std::uint64_t reported_lost_ = 0;
    std::uint64_t reported_new_files_ = 0;
    bool failing_ = false;
    bool failed_ = false;
};

}  // namespace qv::node
