// quorvane-call: places calls through the module without a telephone switch.
#include <atomic>
#include <csignal>
#include <exception>
#include <iostream>
#include <utility>

#include "tools/call/application.h"
#include "tools/call/options.h"
#include "tools/exit_codes.h"

namespace {

std::atomic<bool> stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

// A second signal ends the program at once.
void on_signal(int number) {
    stop = true;
    std::signal(number, SIG_DFL);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace qv::tools::call;
    try {
        Options options;
        if (const auto exit_code = parse_options(argc, argv, options)) {
            return *exit_code;
        }
        std::signal(SIGINT, on_signal);
        std::signal(SIGTERM, on_signal);
        return Application(std::move(options), std::cout, std::cerr, stop).run();
    } catch (const std::exception& error) {
        std::cerr << "quorvane-call: " << error.what() << std::endl;
        return qv::tools::EXIT_TROUBLE;
    }
}
