// The signals that the receiver takes: SIGINT and SIGTERM ask it to end, SIGHUP asks it to read
// its files again. Those that would kill it for what one file or reader did are ignored. Belongs
// to the thread of the event loop.
//
// The system sends SIGHUP also when the terminal is closed from which the program was started.
// That ends it, unless it was started with nohup.
#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <functional>
#include <string>

namespace qv::node {

class Signals {
  public:
    using OnEnd = std::function<void(const std::string& reason)>;
    using OnReload = std::function<void()>;

    // From now on the signals do not end the process.
    explicit Signals(asio::io_context& loop);

    // Calls `on_end` once, on the loop, with the reason in words, and `on_reload` each time
    // that SIGHUP asks for it.
    void wait(OnEnd on_end, OnReload on_reload);

  private:
    void wait_for_end();
    void wait_for_hangup();

    asio::signal_set end_signals_;
    asio::signal_set hangup_signal_;
    bool ends_with_terminal_;
    OnEnd on_end_;
    OnReload on_reload_;
};

}  // namespace qv::node
