#include "node/report/end_command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

#include "node/calls/call.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

constexpr std::chrono::milliseconds LOOK_AGAIN{20};

// The environment of a command: an empty standard input, our standard error as its output (the
// standard output may carry events), none of our sockets and files, and default signal handling.
class Surroundings {
  public:
    Surroundings() {
        posix_spawn_file_actions_init(&files_);
        posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files_, STDERR_FILENO, STDOUT_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
        posix_spawnattr_init(&attributes_);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    ~Surroundings() {
        posix_spawn_file_actions_destroy(&files_);
        posix_spawnattr_destroy(&attributes_);
    }
    Surroundings(const Surroundings&) = delete;
    Surroundings& operator=(const Surroundings&) = delete;

    const posix_spawn_file_actions_t* files() const { return &files_; }
    const posix_spawnattr_t* attributes() const { return &attributes_; }

  private:
    posix_spawn_file_actions_t files_{};
    posix_spawnattr_t attributes_{};
};

// Pointers to the strings, as a new program expects them. Valid as long as the strings.
std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> all;
    all.reserve(strings.size() + 1);
    for (std::string& string : strings) {
        all.push_back(string.data());
    }
    all.push_back(nullptr);
    return all;
}

std::string exit_text(int status) {
    return WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status))
                               : "exit code " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

void EndCommand::ended(const Call& call, EndReason reason) {
    Run run{options_.words, {}, uuid_text(call.uuid())};
    for (const FileReport& file : call.files()) {
        if (file.error.empty()) {
            run.arguments.push_back(file.path);
        }
    }
    run.environment = {"QUORVANE_CALL_UUID=" + run.call,
                       "QUORVANE_CALL_KEY=" + key_text(call.call_key()),
                       std::string("QUORVANE_END_REASON=") + name_of(reason)};
    if (call.start().has_value()) {
        // A zero byte would cut the variable short.
        run.environment.push_back("QUORVANE_CALL_REFERENCE=" +
                                  std::string(call.start()->call_reference.c_str()));
    }
    if (!call.sidecar().empty()) {
        run.environment.push_back("QUORVANE_SIDECAR=" + call.sidecar());
    }
    const LockGuard lock(mutex_);
    if (waiting_.size() < options_.most_waiting) {
        waiting_.push_back(std::move(run));
    } else {
        ++counts_.skipped;
    }
}

std::optional<EndCommand::Run> EndCommand::next() {
    const LockGuard lock(mutex_);
    if (waiting_.empty()) {
        return std::nullopt;
    }
    Run run = std::move(waiting_.front());
    waiting_.pop_front();
    return run;
}

std::size_t EndCommand::waiting() const {
    const LockGuard lock(mutex_);
    return waiting_.size();
}

EndCommand::Counts EndCommand::counts() const {
    const LockGuard lock(mutex_);
    return counts_;
}

void EndCommand::poll() {
    reap();
    while (running_.size() < options_.most_running) {
        const std::optional<Run> run = next();
        if (!run.has_value()) {
            break;
        }
        start(*run);
    }
}

std::size_t EndCommand::finish(std::chrono::milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    poll();
    while ((!running_.empty() || waiting() != 0) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(LOOK_AGAIN);
        poll();
    }
    return waiting();
}

void EndCommand::start(const Run& run) {
    static const Surroundings surroundings;
    std::vector<std::string> arguments = run.arguments;
    std::vector<std::string> added = run.environment;
    std::vector<char*> environment = pointers(added);
    environment.pop_back();
    for (char** variable = ::environ; *variable != nullptr; ++variable) {
        environment.push_back(*variable);
    }
    environment.push_back(nullptr);
    pid_t process = 0;
    const int error =
        ::posix_spawnp(&process, arguments[0].c_str(), surroundings.files(),
                       surroundings.attributes(), pointers(arguments).data(), environment.data());
    if (error != 0) {
        fail(run.call, std::generic_category().message(error));
    } else {
        running_.push_back({process, run.call});
    }
}

void EndCommand::reap() {
    for (std::size_t i = 0; i < running_.size();) {
        int status = 0;
        const pid_t ended = ::waitpid(running_[i].process, &status, WNOHANG);
        if (ended == 0) {
            ++i;
            continue;
        }
        if (ended > 0 && status != 0) {
            fail(running_[i].call, exit_text(status));
        }
        running_[i] = running_.back();
        running_.pop_back();
    }
}

void EndCommand::fail(const std::string& call, const std::string& why) {
    {
        const LockGuard lock(mutex_);
        ++counts_.failed;
    }
    report_(options_.words[0] + " after call " + call + ": " + why);
}

}  // namespace qv::node
