// The present time of the clock of a call's sender, derived from the send times of its packets. It
// shows whether the send time of a packet can be true.
//
// Between packets, the sender's clock advances like the receiver's. A send time that is far from
// both is implausible until the next packet confirms it. A single forged packet therefore does not
// move the clock, and a sender that is faster than real time may skip a pause. Plain values;
// belongs to one thread.
#pragma once

#include <cmath>
#include <cstdint>

#include "node/calls/types.h"

namespace qv::node {

class SenderClock {
  public:
    // A send time that differs by more cannot be true, unless the sender does not keep real time.
    static constexpr Micros TOLERANCE{2'000'000};

    // A packet of the call's audio came at `now`.
    void note(std::int64_t send_time, Micros now) {
        const bool confirmed = implausible_ && is_near(send_time, implausible_time_);
        if (!begun_ || confirmed || is_near(send_time, at(now))) {
            set(send_time, now);
        } else {
            implausible_ = true;
            implausible_time_ = send_time;
        }
    }

    // Another packet came at `now`. It counts only if it is the first of the call.
    void begin(std::int64_t send_time, Micros now) {
        if (!begun_) {
            set(send_time, now);
        }
    }

    // Whether a packet that comes at `now` claims a send time in the future, which is possible only
    // if the sender is faster than real time.
    bool is_far_ahead(std::int64_t send_time, Micros now) const {
        return begun_ && send_time > at(now) && !is_near(send_time, at(now));
    }

    // Whether the sender has kept real time for longer than the tolerance.
    bool keeps_real_time() const { return latest_came_ - first_came_ > TOLERANCE && !faster_; }

    // The time on the sender's clock at `now`. 0 before any packet.
    std::int64_t at(Micros now) const { return sum(latest_, (now - latest_came_).count()); }

  private:
    // Forged times must not overflow.
    static std::int64_t sum(std::int64_t one, std::int64_t other) {
        return static_cast<std::int64_t>(static_cast<std::uint64_t>(one) +
                                         static_cast<std::uint64_t>(other));
    }
    static bool is_near(std::int64_t one, std::int64_t other) {
        const double distance = static_cast<double>(one) - static_cast<double>(other);
        return std::abs(distance) <= static_cast<double>(TOLERANCE.count());
    }
    void set(std::int64_t send_time, Micros now) {
        if (!begun_) {
            first_ = send_time;
            first_came_ = now;
        }
        const std::int64_t due = sum(first_, (now - first_came_).count());
        faster_ = faster_ || (send_time > due && !is_near(send_time, due));
        begun_ = true;
        implausible_ = false;
        latest_ = send_time;
        latest_came_ = now;
    }

    bool begun_ = false;
    bool implausible_ = false;
    bool faster_ = false;  // Faster than real time.
    std::int64_t first_ = 0;
    Micros first_came_{0};
    std::int64_t latest_ = 0;
    Micros latest_came_{0};
    std::int64_t implausible_time_ = 0;
};

}  // namespace qv::node
