#include "node/calls/pause_finder.h"

#include <algorithm>
#include <cmath>

namespace qv::node {

double PauseFinder::lag_s(std::int64_t send_time, std::int64_t axis_begin, int sample_rate,
                          std::uint64_t ahead) const {
    if (sample_rate == 0) {
        return 0;
    }
    // Computed as floating point, because forged times could overflow.
    const double on_axis =
        (static_cast<double>(send_time) - static_cast<double>(axis_begin)) / 1e6 - cut_s_;
    return on_axis - position_s(sample_rate) - static_cast<double>(ahead) / sample_rate;
}

void PauseFinder::change_rate(int former_rate) {
    changed_at_s_ = position_s(former_rate);
    changed_at_ = position_;
}

std::uint64_t PauseFinder::begin_pause(double lag_s, int sample_rate, double longest_s) {
    const double pause = std::min(lag_s, longest_s);
    cut_s_ += lag_s - pause;
    ++pauses_;
    const auto samples = static_cast<std::uint64_t>(std::llround(pause * sample_rate));
    position_ += samples;
    return samples;
}

}  // namespace qv::node
