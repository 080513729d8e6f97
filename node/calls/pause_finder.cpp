#include "node/calls/pause_finder.h"

#include <algorithm>
#include <cmath>

namespace qv::node {

double PauseFinder::lag_s(std::int64_t send_time, std::int64_t axis_begin, int sample_rate,
                          std::uint64_t ahead) const {
    if (sample_rate == 0) {
        return 0;
    }
    const double on_axis = seconds_between(axis_begin, send_time) - cut_s_;
    return on_axis - position_s(sample_rate) - seconds_of(ahead, sample_rate);
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
