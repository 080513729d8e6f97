#include "tests/support/wall_clock.h"

#include <dlfcn.h>

#include <atomic>
#include <ctime>

namespace qv::tests {

namespace {

std::atomic<time_t> seconds_ahead{0};

}  // namespace

void WallClock::set_ahead(std::chrono::seconds step) {
    seconds_ahead = step.count();
}

}  // namespace qv::tests

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    static auto* const next =
        reinterpret_cast<int (*)(clockid_t, timespec*)>(::dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = next(clock, time);
    if (result == 0 && clock == CLOCK_REALTIME) {
        time->tv_sec += qv::tests::seconds_ahead;
    }
    return result;
}
