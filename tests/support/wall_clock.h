// Steps the wall clock of a test program, as an administrator or a time service would.
//
// quorvane_wall_clock replaces clock_gettime in the program that links it. The standard
// library's clocks call it. It adds the step to the wall clock and leaves the steady clock
// alone. Any thread may step; all threads see it.
#pragma once

#include <chrono>

namespace qv::tests {

class WallClock {
  public:
    WallClock() = default;
    WallClock(const WallClock&) = delete;
    WallClock& operator=(const WallClock&) = delete;
    ~WallClock() { set_ahead(std::chrono::seconds(0)); }

    // Sets how far the wall clock is ahead of the true time; negative: behind it.
    static void set_ahead(std::chrono::seconds step);
};

}  // namespace qv::tests
