// When calls begin and how long they last, and the timer queue of a run.
//
// Plain values; one thread at a time. Times count from the beginning of the run.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <queue>
#include <vector>

namespace qv::tools::call {

using Time = std::chrono::nanoseconds;

Time time_of_seconds(double seconds);
double seconds_of(Time time);

// The limits of a random value. Its unit is in the name of what holds it.
struct Span {
    double min = 0;
    double max = 0;
};

struct SchedulePlan {
    std::size_t calls = 1;
    double rate = 100;             // calls per second
    std::optional<Span> length_s;  // none: as long as the audio
    Time frame_time{20'000'000};
    std::uint64_t seed = 1;
};

struct CallTimes {
    Time begin{0};
    Time phase{0};                   // from the begin to the first frame; less than a frame time
    std::optional<double> length_s;  // none: as long as the audio
};

// In the order in which they begin. Each call has a random phase, unless it is the only one: as in
// a switch, the frames of many calls are not all due at the same time. The same plan results in the
// same times.
std::vector<CallTimes> plan_calls(const SchedulePlan& plan);

struct Step {
    enum class Kind { BEGIN, TAP, COMMAND, HANGUP, FAULT };

    Kind kind = Kind::BEGIN;
    std::size_t call = 0;  // number of the call; not for a fault
    std::size_t item = 0;  // number of the command or of the fault
    bool on = true;        // of a fault
};

// Steps in the order of their times; at the same time, in the order in which they were added.
class TimerQueue {
  public:
    void add(Time at, Step step);
    // When the next step is due.
    std::optional<Time> next() const;
    // Removes and returns the next step if it is due by `now`.
    std::optional<Step> take(Time now);

  private:
    struct Entry {
        Time at;
        std::uint64_t number;
        Step step;

        bool operator<(const Entry& other) const {  // std::priority_queue returns the largest first
            return at != other.at ? at > other.at : number > other.number;
        }
    };

    std::priority_queue<Entry> entries_;
    std::uint64_t added_ = 0;
};

}  // namespace qv::tools::call
