// Steps the wall clock of a test program, as an administrator or a time service would do it.
//
// A program that links quorvane_wall_clock has its own clock_gettime, which the clocks of the
// standard library ask. It adds the step to the wall clock; the steady clock stays as it is.
// Any thread may step; all threads see it.
#pragma once

#include <chrono>

namespace qv::tests {

class WallClock {
  public:
    WallClock() = default;
    WallClock(const WallClock&) = delete;
    WallClock& operator=(const WallClock&) = delete;
    ~WallClock() { set_ahead(std::chrono::seconds(0)); }

    // From now on the wall clock is this much ahead of the true time; negative: behind it.
    static void set_ahead(std::chrono::seconds step);
};

}  // namespace qv::tests
