// Finds the sample rate of one side from what its data packets carry: how far the
// sample offset moves against the send time. Pauses of the sender are left out of the
// account. Plain values; belongs to one thread.
#pragma once

#include <cstdint>
#include <optional>

#include "tools/node/types.h"

namespace qv::tools::node {

class RateEstimator {
  public:
    // Takes in a packet; those that come out of order are ignored.
    void add(std::uint32_t sample_offset, std::int64_t send_time);

    // The usual rate nearest to the measured one; nothing while less than half a second
    // has been seen, and when no usual rate is near (a sender that does not run in real
    // time).
    std::optional<int> rate() const;

    // The same from as little as there is, for a side that has ended.
    std::optional<int> best_guess() const;

  private:
    std::optional<int> rate_over(Micros least) const;

    bool begun_ = false;
    std::uint32_t last_offset_ = 0;
    std::int64_t last_time_ = 0;
    std::uint64_t samples_ = 0;
    Micros span_{0};
};

}  // namespace qv::tools::node
