// Builds the outputs that the options ask for (files, lines, events, pictures, live view, metrics),
// keeps them running, and reports their failures.
//
// To add an output, construct it in build() and add it to the lists there; call_listener.h explains
// what an output is. All lanes call the outputs of these lists, so any thread must be able to call
// them. An output that keeps much state for each call belongs in LaneOutputs: each lane has its
// own.
//
// Outputs itself belongs to the thread of the program's event loop.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "node/analysis/analyser.h"
#include "node/calls/call_listener.h"
#include "node/lane_outputs.h"
#include "node/options.h"
#include "node/outputs/command_output.h"
#include "node/outputs/engine_output.h"
#include "node/outputs/event_output.h"
#include "node/outputs/file_output.h"
#include "node/outputs/live_output.h"
#include "node/outputs/metrics_output.h"
#include "node/outputs/patience.h"
#include "node/outputs/reload_list.h"
#include "node/outputs/retention_output.h"
#include "node/outputs/sample_references.h"
#include "node/report/console.h"
#include "node/report/figures.h"
#include "node/report/line_report.h"
#include "node/report/notices.h"
#include "node/report/report_sender.h"
#include "node/report/summary.h"
#include "node/web/web_output.h"

namespace qv::node {

class Outputs {
  public:
    using KeepWaiting = Patience::KeepWaiting;

    // The standard output receives the lines or the events, and the standard error the lines when
    // the standard output receives events. A capture is read only as fast as the outputs take what
    // it has, as long as `keep_waiting` says so. The options must outlive this object.
    Outputs(const Options& options, KeepWaiting keep_waiting);

    // Call these in this order before anything else. Each returns what cannot be used and why, or
    // an empty text.
    std::string open_folder() { return files_.open(); }
    std::string open_reports();

    // What the node does when calls ask for it. Valid after all outputs are open.
    Services services() const;

    // Builds the outputs of a further lane. Call it as often as the options say, before the first
    // call begins.
    LaneOutputs& add_lane();
    // The calls that the lanes have published last, for the live view.
    AllCalls calls() const;
    // Reports what concerns no call.
    Notices& notices() { return *notices_; }
    LineReport& lines() { return lines_; }

    // Reports that the node is ready. From then on the live view owns the terminal.
    void begin(const NodeFigures& figures);
    // Call it several times a second. Shows what has happened, and completes `figures` with those
    // of the outputs.
    void update(NodeFigures figures, Micros now);
    // Whether a key of the live view has asked for the end of the program since the last call.
    bool take_quit() { return live_ != nullptr && live_->take_quit(); }
    // Reopens and rereads what SIGHUP is for; update() goes on with it and reports the results.
    void reload();
    // Whether a reload has finished since the last call.
    bool take_reloaded() { return std::exchange(reloaded_, false); }
    // The program has been asked to end: from now on, readers are waited for only for a short time,
    // also if a capture is read.
    void hurry() { patience_.hurry(); }
    // Call it after all calls have ended. Writes everything that is still waiting, and the summary.
    void finish(NodeFigures figures);

    // Waits a moment for files that are being completed. Returns whether all of them are complete.
    bool files_complete();
    // Call it when all files are complete. Waits a moment for the last flush to the disk, if there
    // is one. Returns whether it has ended.
    bool synced() { return files_.synced(); }
    // Shows what the end of the program waits for. Call it several times a second.
    void show_ending(const NodeFigures& figures, Micros now);
    // Gives up what the disk has not taken.
    void give_up_files();

    // Whether a file or an event could not be written.
    bool failed() const;

  private:
    std::string open_web();
    std::string open_sender();
    void build();
    Analyser::Figures analysis() const;
    void update_files();
    void report_lost_output();
    void add_figures(NodeFigures& figures) const;

    const Options& options_;
    const KeepWaiting keep_waiting_;
    Patience patience_;
    Console console_;
    LineReport lines_;
    FileOutput files_;
    std::unique_ptr<LiveOutput> live_;  // Null unless it owns the terminal.
    bool ending_shown_ = false;
    EventOutput events_;
    SampleReferences samples_;
    EngineOutput engine_;
    ReloadList reloads_;
    bool reloaded_ = false;
    std::unique_ptr<ReportSender> reports_;  // These are null unless requested.
    MetricsOutput metrics_;
    std::unique_ptr<web::WebOutput> web_;
    std::unique_ptr<CommandOutput> commands_;
    std::unique_ptr<Notices> notices_;
    std::unique_ptr<RetentionOutput> retention_;
    // Those that all lanes share, in the order in which they are called.
    std::vector<CallListener*> before_lane_;
    std::vector<CallListener*> after_lane_;
    std::vector<std::unique_ptr<LaneOutputs>> lanes_;
    Micros last_second_{0};  // When the work that is done once a second was done last.
    bool failed_ = false;
};

}  // namespace qv::node
