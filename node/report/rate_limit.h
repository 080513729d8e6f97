// Limits how often something happens: to a number per second in the long run, and to a number at
// once. Plain values; belongs to one thread.
#pragma once

#include <algorithm>

#include "node/calls/types.h"

namespace qv::node {

class RateLimit {
  public:
    RateLimit(double per_second, double at_once)
        : per_second_(per_second), at_once_(at_once), left_(at_once) {}

    // Whether one more is allowed at that time, if `kept` remain for others.
    bool allows(Micros now, double kept = 0) {
        left_ = std::min(at_once_, left_ + seconds_of(now - last_) * per_second_);
        last_ = now;
        return left_ >= 1 + kept;
    }
    // One more has happened.
    void count() { left_ -= 1; }

  private:
    const double per_second_;
    const double at_once_;
    double left_;
    Micros last_{0};
};

}  // namespace qv::node
