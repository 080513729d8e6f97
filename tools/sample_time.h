// How long samples last.
#pragma once

#include <cstdint>

namespace qv::tools {

// Returns seconds. `rate` is in samples per second and not 0.
inline double seconds_of_samples(std::uint64_t samples, double rate) {
    return static_cast<double>(samples) / rate;
}

}  // namespace qv::tools
