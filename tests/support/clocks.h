// Clocks in the form of the packets' times.
//
// The function keeps no state; any thread may call it.
#pragma once

#include <chrono>
#include <cstdint>

namespace qv::tests {

// Microseconds since the epoch of the clock.
template <typename Clock>
std::int64_t now_us() {
    const auto now = Clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

}  // namespace qv::tests
