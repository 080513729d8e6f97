// The road of a datagram behind the socket: decodes it and hands the packet to the call table;
// counts those that are no packets. Belongs to one thread, as the table does.
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
    // Called for each datagram that is no packet, the `count`th for that reason.
    using OnMalformed = std::function<void(const Datagram& datagram, media::DecodeResult reason,
                                           std::uint64_t count)>;
    using MalformedCounts = std::array<std::uint64_t, media::DECODE_RESULT_COUNT>;

    // The table must outlive this object.
    Intake(CallTable& calls, OnMalformed on_malformed);

    // From now on takes in nothing from other senders.
    void allow_only(tools::AllowedNetworks networks) { allowed_ = std::move(networks); }

    void receive(const Datagram& datagram);

    // By DecodeResult.
    const MalformedCounts& malformed() const { return malformed_; }
    // Datagrams of senders that are not allowed, and where the latest of them came from.
    std::uint64_t not_allowed() const { return not_allowed_; }
    const sockaddr_in& latest_not_allowed() const { return latest_not_allowed_; }
    // When the latest datagram of an allowed sender came; 0 when none did.
    Micros last_arrival() const { return last_arrival_; }

  private:
    CallTable& calls_;
    OnMalformed on_malformed_;
    tools::AllowedNetworks allowed_;
    std::uint64_t not_allowed_ = 0;
    sockaddr_in latest_not_allowed_{};
    MalformedCounts malformed_{};
    Micros last_arrival_{0};
};

}  // namespace qv::node
