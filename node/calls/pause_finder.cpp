#include "node/calls/pause_finder.h"

#include <algorithm>
#include <cmath>

namespace qv::node {

std::uint64_t PauseFinder::pause_before(std::int64_t send_time, std::int64_t axis_begin,
                                        int sample_rate, double longest_s) {
    if (sample_rate == 0) {
        return 0;
    }
    // As floating point: forged times must not overflow.
    const double on_axis =
        (static_cast<double>(send_time) - static_cast<double>(axis_begin)) / 1e6 - cut_s_;
    const double lag = on_axis - static_cast<double>(position_) / sample_rate;
    if (lag < seconds_of(SHORTEST)) {
        return 0;
    }
    const double pause = std::min(lag, longest_s);
    cut_s_ += lag - pause;
    ++pauses_;
    return static_cast<std::uint64_t>(std::llround(pause * sample_rate));
}

}  // namespace qv::node
