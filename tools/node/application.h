// The receiver as a whole: socket, calls, reports, timers and signals on one event loop.
#pragma once

#include <array>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <memory>
#include <ostream>
#include <string>

#include "tools/node/audio_files.h"
#include "tools/node/call_table.h"
#include "tools/node/line_report.h"
#include "tools/node/options.h"
#include "tools/node/receiver.h"

namespace qv::tools::node {

class Application {
  public:
    // `out` gets the lines, `errors` what keeps the program from starting.
    Application(const Options& options, std::ostream& out, std::ostream& errors);

    // Runs until a signal or until the options say so; returns the exit code.
    int run();

  private:
    bool open();
    void on_datagram(const unsigned char* data, std::size_t size, Micros now);
    void count_malformed(media::DecodeResult reason, const unsigned char* data, std::size_t size);
    void schedule_tick();
    void tick();
    void report_losses();
    bool enough() const;
    void finish();
    void print_summary();

    Options options_;
    std::ostream& out_;
    std::ostream& errors_;
    asio::io_context loop_{1};
    asio::signal_set signals_;
    asio::steady_timer timer_;
    LineReport lines_;
    std::unique_ptr<WavFolder> folder_;
    std::unique_ptr<CallTable> calls_;
    Receiver receiver_;
    Micros last_packet_{0};  // When the latest datagram came, or the beginning.
    std::array<std::uint64_t, media::DECODE_RESULT_COUNT> malformed_{};
    std::uint64_t reported_overflow_ = 0;
    int exit_code_ = EXIT_FINE;
};

}  // namespace qv::tools::node
