// Converts the send times of a call's packets to wall time. The first packet that is noted connects
// the two clocks. Plain values; belongs to one thread.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>

#include "node/calls/types.h"
#include "node/report/text.h"

namespace qv::node {

class CallClock {
  public:
    // Longer times between packets are due to forged send times.
    static constexpr double LONGEST_S = 1e8;

    // A packet has come now.
    void note(std::int64_t send_time) {
        if (!begun_) {
            begun_ = true;
            send_time_ = send_time;
            time_ = wall_time();
        }
    }

    // The time since 1970. Nullopt before any packet, and for a send time that cannot be true.
    std::optional<Micros> at(std::int64_t send_time) const {
        const double later_s =
            (static_cast<double>(send_time) - static_cast<double>(send_time_)) / 1e6;
        return begun_ && std::abs(later_s) < LONGEST_S
                   ? std::optional(time_ + Micros(send_time - send_time_))
                   : std::nullopt;
    }

  private:
    bool begun_ = false;
    std::int64_t send_time_ = 0;
    Micros time_{0};  // Since 1970.
};

}  // namespace qv::node
