// The signals of the media node: SIGINT and SIGTERM ask it to end, SIGHUP asks it to reread its
// files. Signals that would kill it because of one file or one reader are ignored. Belongs to the
// thread of the event loop.
//
// The system also sends SIGHUP when the terminal closes from which the program was started. This
// ends the program, unless it was started with nohup.
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

    // From now on, these signals do not end the process.
    explicit Signals(asio::io_context& loop);

    // Calls `on_end` on the event loop, with the reason in words, for each signal to end. Calls
    // `on_reload` each time SIGHUP asks for it.
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
