// Records the system calls of a test program and lets them fail.
//
// A program that links quorvane_system_calls has its own socket, setsockopt, bind, sendto, recv,
// shutdown, close, connect, getsockname, gethostname, stat, mkdir, and fopen64 and read, by
// which a stream of the standard library opens and reads its file. They call the system's own.
// While a SystemCalls object exists, each call is recorded, and the outcomes that the test has
// queued for it come first. Any thread may make the calls.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quorvane_lib/mutex.h"

namespace qv::tests {

// The outcome of one call.
struct Outcome {
    enum class Kind {
        PASS,    // Calls the system.
        FAIL,    // Fails with errno `value` without calling the system.
        LIMIT,   // Calls the system with at most `value` bytes.
        ANSWER,  // Returns `value` without calling the system.
        STARVE,  // Calls the system without a free file descriptor.
    };
    Kind kind = Kind::PASS;
    long value = 0;

    static Outcome pass() { return {Kind::PASS, 0}; }
    static Outcome fail(int error) { return {Kind::FAIL, error}; }
    static Outcome limit(long bytes) { return {Kind::LIMIT, bytes}; }
    static Outcome answer(long result) { return {Kind::ANSWER, result}; }
    static Outcome starve() { return {Kind::STARVE, 0}; }
};

// A call that was made: its integer arguments, its path or address in text, its bytes,
// and what it returned.
struct SeenCall {
    std::string name;
    std::vector<long> numbers;
    std::string text;
    std::string bytes;
    long result = 0;
};

// One at a time.
class SystemCalls {
  public:
    SystemCalls();
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;
    ~SystemCalls();

    // Queues `outcome` for a later call of `name`.
    void next(const std::string& name, Outcome outcome);

    // Runs `action` before each call of `name`, on the thread that makes the call.
    void before(const std::string& name, std::function<void()> action);

    // The calls of one name so far; the names of all calls in order.
    std::vector<SeenCall> seen(const std::string& name) const;
    std::vector<std::string> names() const;

    // For the wrappers.
    void prepare(const std::string& name);
    Outcome take(const std::string& name);
    void note(SeenCall call);

  private:
    mutable Mutex mutex_;
    std::map<std::string, std::function<void()>> actions_ QV_GUARDED_BY(mutex_);
    std::map<std::string, std::deque<Outcome>> outcomes_ QV_GUARDED_BY(mutex_);
    std::vector<SeenCall> seen_ QV_GUARDED_BY(mutex_);
};

}  // namespace qv::tests
