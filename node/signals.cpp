#include "node/signals.h"

#include <csignal>
#include <system_error>
#include <utility>

namespace qv::node {

Signals::Signals(asio::io_context& loop) : end_signals_(loop) {
    // A reader of our output that goes away must not end the recordings.
    std::signal(SIGPIPE, SIG_IGN);
    // A file beyond the limit of its size is an error of that file.
    std::signal(SIGXFSZ, SIG_IGN);
    std::error_code ignored;
    end_signals_.add(SIGINT, ignored);
    end_signals_.add(SIGTERM, ignored);
}

void Signals::wait_for_end(std::function<void(const std::string& reason)> on_end) {
    end_signals_.async_wait([on_end = std::move(on_end)](std::error_code error, int number) {
        if (!error) {
            on_end(number == SIGINT ? "interrupted" : "asked to end");
        }
    });
}

}  // namespace qv::node
