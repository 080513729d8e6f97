#include "node/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <system_error>
#include <utility>

namespace qv::node {

namespace {

// Returns whether the process has a terminal that can hang up. After a hang-up it has none.
bool has_terminal() {
    const int terminal = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0) {
        return false;
    }
    ::close(terminal);
    return true;
}

// nohup has set this.
bool hangup_is_ignored() {
    struct sigaction action {};
    return sigaction(SIGHUP, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Signals::Signals(asio::io_context& loop)
    : end_signals_(loop),
      hangup_signal_(loop),
      ends_with_terminal_(has_terminal() && !hangup_is_ignored()) {
    // When the reader of our output goes away, recording continues.
    std::signal(SIGPIPE, SIG_IGN);
    // If a file exceeds the limit of its size, only that file fails.
    std::signal(SIGXFSZ, SIG_IGN);
    std::error_code ignored;
    end_signals_.add(SIGINT, ignored);
    end_signals_.add(SIGTERM, ignored);
    hangup_signal_.add(SIGHUP, ignored);
}

void Signals::wait(OnEnd on_end, OnReload on_reload) {
    on_end_ = std::move(on_end);
    on_reload_ = std::move(on_reload);
    wait_for_end();
    wait_for_hangup();
}

void Signals::wait_for_end() {
    end_signals_.async_wait([this](std::error_code error, int number) {
        if (!error) {
            on_end_(number == SIGINT ? "interrupted" : "asked to end");
            wait_for_end();
        }
    });
}

void Signals::wait_for_hangup() {
    hangup_signal_.async_wait([this](std::error_code error, int /*number*/) {
        if (error) {
            return;
        }
        if (ends_with_terminal_ && !has_terminal()) {
            on_end_("the terminal was closed");
            return;
        }
        on_reload_();
        wait_for_hangup();
    });
}

}  // namespace qv::node
