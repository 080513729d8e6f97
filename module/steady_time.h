// The clock from which the module computes the times of packets: it never jumps. Any thread may
// call it.
#pragma once

#include <chrono>
#include <cstdint>

namespace qv::freeswitch {

// Microseconds since the start of the steady clock.
inline std::uint64_t steady_time_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() / 1000);
}

}  // namespace qv::freeswitch
