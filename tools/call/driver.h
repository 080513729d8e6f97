// Runs the calls of a plan on an embedded host.
//
// Belongs to the thread that calls run(). Media threads use only the queue of ended sides
// and the tally.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/embedded_host.h"
#include "quorvane_lib/mutex.h"
#include "tools/call/call_plan.h"
#include "tools/call/frame_tally.h"
#include "tools/call/schedule.h"

namespace qv::tools::call {

struct FailedCommand {
    std::size_t call = 0;  // from 1
    std::string command;
    std::string answer;
};

// The figures of a run, apart from those of the frames.
struct RunTotals {
    std::size_t calls_planned = 0;
    std::size_t calls_begun = 0;
    std::size_t calls_tapped = 0;  // the application ran and added its media bug
    std::size_t calls_ended = 0;   // at the end of the audio or by a planned hang-up
    std::size_t calls_cut = 0;     // hung up because the run was interrupted
    std::size_t most_at_once = 0;
    std::size_t commands_run = 0;
    std::size_t commands_failed = 0;  // answered "-ERR" or nothing
    std::optional<FailedCommand> first_failed;
    std::size_t commands_missed = 0;  // the call had ended before
    double call_seconds = 0;          // sum of the lengths of all calls
    double elapsed_s = 0;
    double user_cpu_s = 0;
    double system_cpu_s = 0;
    std::uint64_t memory_before = 0;  // bytes resident
    std::uint64_t memory_most = 0;    // bytes resident, maximum
};

struct Progress {
    double elapsed_s = 0;
    double expected_s = 0;
    std::size_t calls_live = 0;
    std::size_t calls_over = 0;
    std::size_t calls_planned = 0;
    std::uint64_t frames = 0;
};

// Called for what happens in a run. Calls are counted from 1.
class RunListener {
  public:
    RunListener() = default;
    RunListener(const RunListener&) = delete;
    RunListener& operator=(const RunListener&) = delete;
    virtual ~RunListener() = default;

    virtual void call_begun(Time at, std::size_t call, const std::string& uuid) = 0;
    virtual void call_tapped(Time at, std::size_t call, bool tapped) = 0;
    virtual void command_run(Time at, std::size_t call, const std::string& command,
                             const std::string& answer) = 0;
    virtual void command_missed(Time at, std::size_t call, const std::string& command) = 0;
    virtual void call_over(Time at, std::size_t call) = 0;
    virtual void fault_switched(Time at, const FaultSpan& fault, bool on) = 0;
    virtual void progress(const Progress& progress) = 0;  // several times a second
};

// Calls of which a side has ended. Media threads add them, the driver takes them.
class EndedSides {
  public:
    void add(std::size_t call);
    std::vector<std::size_t> take();
    // Returns when a side has ended, or at `time`.
    void wait_until(std::chrono::steady_clock::time_point time);

  private:
    Mutex lock_;
    Condition added_;
    std::vector<std::size_t> calls_ QV_GUARDED_BY(lock_);
};

class Driver {
  public:
    // The host, the plan and the listener must outlive the driver. The caller switches on the
    // faults that have no beginning.
    Driver(host::EmbeddedHost& host, const CallPlan& plan, RunListener& listener);

    // Returns when all calls are over. Setting `stop` hangs them up.
    RunTotals run(const std::atomic<bool>& stop);

    const FrameTally& tally() const { return *tally_; }

  private:
    using Clock = std::chrono::steady_clock;

    struct LiveCall {
        std::unique_ptr<host::Call> call;
        Time begin{0};
        int sides_left = 0;
        std::size_t commands_left = 0;
    };

    Time now() const { return Clock::now() - start_; }
    void fill_timers();
    void perform_due(Time due_by);
    void perform(const Step& step);

    void begin_or_wait(std::size_t index);
    void begin(std::size_t index);
    void tap(std::size_t index);
    void start_media(std::size_t index, host::Call& call);
    std::unique_ptr<host::FrameSource> source_of(const std::optional<Audio>& audio,
                                                 std::size_t index);
    void run_command(std::size_t index, const TimedCommand& command);
    void switch_planned_fault(std::size_t item, bool on);
    void side_ended(std::size_t index);
    void hang_up(std::size_t index, std::size_t RunTotals::*counted_as);
    void cut_all();
    void miss_commands(std::size_t index);

    void tick(Time at);
    void sample_memory();
    bool finished() const;

    host::EmbeddedHost& host_;
    const CallPlan& plan_;
    RunListener& listener_;
    const std::vector<CallTimes> times_;
    const std::shared_ptr<FrameTally> tally_;
    const std::shared_ptr<EndedSides> ended_ = std::make_shared<EndedSides>();
    const double expected_s_;

    Clock::time_point start_;
    TimerQueue timers_;
    std::vector<LiveCall> calls_;      // by index; `call` is null for those not live
    std::deque<std::size_t> waiting_;  // due, but `concurrent` calls are live
    std::size_t live_ = 0;
    RunTotals totals_;
};

}  // namespace qv::tools::call
