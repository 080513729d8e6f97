// The receiver as a whole: socket, calls, reports, timers and signals on one event loop.
#pragma once

#include <array>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <memory>
#include <ostream>
#include <string>

#include "node/audio/audio_files.h"
#include "node/audio/file_names.h"
#include "node/audio/recorder.h"
#include "node/calls/call_table.h"
#include "node/ingest/receiver.h"
#include "node/options.h"
#include "node/report/event_file.h"
#include "node/report/event_log.h"
#include "node/report/line_report.h"
#include "node/report/live_view.h"
#include "node/report/metrics.h"
#include "node/report/timeline.h"

namespace qv::node {

class Application {
  public:
    // `out` gets lines or events, `errors` what keeps the program from starting, and the
    // lines when `out` gets events.
    Application(const Options& options, std::ostream& out, std::ostream& errors);

    // Runs until a signal or until the options say so; returns the exit code.
    int run();

  private:
    bool open();
    bool open_folder();
    bool open_socket();
    bool open_events();
    bool open_metrics();
    void open_calls();
    bool refuse(const std::string& what, const std::string& why);
    void greet();
    std::unique_ptr<FileNames> make_file_names();
    FileReport save_timeline(const std::string& name, const std::string& svg);

    void on_datagram(const Datagram& datagram);
    void count_malformed(media::DecodeResult reason, const Datagram& datagram);
    void schedule_tick();
    void tick();
    void report_losses();
    void report_drops();
    void update_outputs(Micros now);
    void flush_events();
    void show_live(Micros now);
    bool enough() const;
    std::uint64_t malformed_total() const;

    void finish();
    void print_summary();

    Options options_;
    std::ostream& out_;
    std::ostream& errors_;
    const bool live_;  // On a terminal.
    asio::io_context loop_{1};
    asio::signal_set signals_;
    asio::steady_timer timer_;
    LineReport lines_;
    EventFile events_file_;
    std::unique_ptr<EventLog> events_;  // Null unless asked for.
    std::unique_ptr<Timeline> timeline_;
    std::unique_ptr<Metrics> metrics_;
    LiveView live_view_;
    std::unique_ptr<WavFolder> folder_;
    std::unique_ptr<FileNames> file_names_;
    std::unique_ptr<Recorder> recorder_;
    std::unique_ptr<CallTable> calls_;
    Receiver receiver_;
    std::string address_;
    Micros began_{0};
    Micros last_packet_{0};  // When the latest datagram came, or the beginning.
    Micros last_second_{0};  // When what is done once a second was done.
    Micros last_frame_{0};
    std::array<std::uint64_t, media::DECODE_RESULT_COUNT> malformed_{};
    std::uint64_t reported_overflow_ = 0;
    std::uint64_t reported_too_many_ = 0;
    std::uint64_t saved_timelines_ = 0;
    std::uint64_t reported_lost_events_ = 0;
    bool events_failed_ = false;
    int exit_code_ = EXIT_FINE;
};

}  // namespace qv::node
