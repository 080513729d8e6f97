// Decodes each datagram and passes the packet to the call table. Counts datagrams that are no
// packets. Belongs to the same thread as the table.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <utility>

#include "node/calls/call_table.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"
#include "tools/networks.h"

namespace qv::node {

class Intake {
  public:
    // Called for each datagram that is no packet. `count` is the number of datagrams refused for
    // that reason so far.
    using OnMalformed = std::function<void(const Datagram& datagram, media::DecodeResult reason,
                                           std::uint64_t count)>;
    using MalformedCounts = std::array<std::uint64_t, media::DECODE_RESULT_COUNT>;

    // The table must outlive this object.
    Intake(CallTable& calls, OnMalformed on_malformed);

    // From now on, datagrams of other senders are refused.
    void allow_only(tools::AllowedNetworks networks) { allowed_ = std::move(networks); }

    void receive(const Datagram& datagram);

    // Indexed by DecodeResult.
    const MalformedCounts& malformed() const { return malformed_; }
    // Datagrams of senders that are not allowed, the sender of the latest one, and when it came.
    std::uint64_t not_allowed() const { return not_allowed_; }
    const sockaddr_in& latest_not_allowed() const { return latest_not_allowed_; }
    Micros latest_not_allowed_time() const { return latest_not_allowed_time_; }
    // When the latest datagram of an allowed sender came. 0 if there was none.
    Micros last_arrival() const { return last_arrival_; }

  private:
    CallTable& calls_;
    OnMalformed on_malformed_;
    tools::AllowedNetworks allowed_;
    std::uint64_t not_allowed_ = 0;
    sockaddr_in latest_not_allowed_{};
    Micros latest_not_allowed_time_{0};
    MalformedCounts malformed_{};
    Micros last_arrival_{0};
};

}  // namespace qv::node
