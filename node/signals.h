// The signals that the receiver takes: SIGINT and SIGTERM ask it to end. Those that would kill
// it for what one file or reader did are ignored. Belongs to the thread of the event loop.
#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <functional>
#include <string>

namespace qv::node {

class Signals {
  public:
    // From now on the signals do not end the process.
    explicit Signals(asio::io_context& loop);

    // Calls `on_end` once, on the loop, with the reason in words.
    void wait_for_end(std::function<void(const std::string& reason)> on_end);

  private:
    asio::signal_set end_signals_;
};

}  // namespace qv::node
