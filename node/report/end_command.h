// Runs the user's command after each call, with the call's files as arguments.
//
// The command runs without a shell, so nothing that a sender chooses is interpreted as a command. A
// limited number run at the same time; further calls wait for their turn, and beyond a limit they
// get no command. An output, and the last of them, because the files of the call are complete then.
// Any thread may call ended(); the other functions belong to one thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "node/calls/call_listener.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

class EndCommand : public CallListener {
  public:
    struct Options {
        std::vector<std::string> words;  // The program and its first arguments; not empty.
        std::size_t most_running = 4;    // At least 1.
        std::size_t most_waiting = 10'000;
    };
    struct Counts {
        std::uint64_t failed = 0;   // Could not be started, or returned a code other than 0.
        std::uint64_t skipped = 0;  // Calls without the command, because too many were waiting.
    };
    // Receives what went wrong with a command. Called from poll() and finish().
    using Report = std::function<void(const std::string& what)>;

    EndCommand(const Options& options, Report report)
        : options_(options), report_(std::move(report)) {}

    void ended(const Call& call, EndReason reason) override QV_EXCLUDES(mutex_);

    // Collects commands that have ended and starts those that wait. Call it several times a second.
    void poll();
    // Waits until all commands have run, at most for `patience`. Commands that are still running
    // then continue on their own. Returns how many calls got no command.
    std::size_t finish(std::chrono::milliseconds patience);

    Counts counts() const QV_EXCLUDES(mutex_);
    std::size_t running() const { return running_.size(); }

  private:
    struct Run {
        std::vector<std::string> arguments;
        std::vector<std::string> environment;  // In addition to the program's own.
        std::string call;                      // Its UUID.
    };
    struct Child {
        pid_t process;
        std::string call;
    };

    std::optional<Run> next() QV_EXCLUDES(mutex_);
    std::size_t waiting() const QV_EXCLUDES(mutex_);
    void start(const Run& run);
    void reap();
    void fail(const std::string& call, const std::string& why);

    const Options options_;
    const Report report_;
    std::vector<Child> running_;
    mutable Mutex mutex_;
    std::deque<Run> waiting_ QV_GUARDED_BY(mutex_);
    Counts counts_ QV_GUARDED_BY(mutex_);
};

}  // namespace qv::node
