// Runs the user's command after each call, with the call's files as arguments.
//
// The command is run without a shell, so nothing that a sender chooses is ever read as a
// command. So many run at once; the calls after them wait for their turn, and beyond a bound
// they go without. An output, and the last of them: the files of the call are complete then.
// Belongs to one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "node/calls/call_listener.h"

namespace qv::node {

class EndCommand : public CallListener {
  public:
    struct Options {
        std::vector<std::string> words;  // The program and its first arguments; not empty.
        std::size_t most_running = 4;    // At least 1.
        std::size_t most_waiting = 10'000;
    };
    struct Counts {
        std::uint64_t failed = 0;   // Could not be started, or ended with another code than 0.
        std::uint64_t skipped = 0;  // Calls without the command: too many waited.
    };
    // Gets what went wrong with a command; called from poll() and finish().
    using Report = std::function<void(const std::string& what)>;

    EndCommand(const Options& options, Report report)
        : options_(options), report_(std::move(report)) {}

    void ended(const Call& call, EndReason reason) override;

    // Takes note of commands that have ended and starts those that wait. To be called some
    // times a second.
    void poll();
    // Waits until all have run, for so long at most; what runs then goes on by itself. Returns
    // how many calls are left without the command.
    std::size_t finish(std::chrono::milliseconds patience);

    const Counts& counts() const { return counts_; }
    std::size_t running() const { return running_.size(); }

  private:
    struct Run {
        std::vector<std::string> arguments;
        std::vector<std::string> environment;  // Beside the program's own.
        std::string call;                      // Its UUID.
    };
    struct Child {
        pid_t process;
        std::string call;
    };

    void start(const Run& run);
    void reap();
    void fail(const std::string& call, const std::string& why);

    Options options_;
    Report report_;
    std::deque<Run> waiting_;
    std::vector<Child> running_;
    Counts counts_;
};

}  // namespace qv::node
