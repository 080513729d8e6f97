// A whole receiver on one thread: a socket, the calls whose packets arrive there, and their
// outputs.
//
// The path of a frame leads through one lane: Receiver reads the datagram, Intake decodes it,
// CallTable finds its call, and Call passes the audio to the outputs of the lane. With several
// threads there are several lanes, which share one port; see lanes.h. On this path nothing is
// shared with another lane. Only when a call begins or ends, or when an output has something to
// report, does a lane take a lock that others take too.
//
// A lane belongs to the thread that runs its event loop.
#pragma once

#include <asio/io_context.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "node/calls/call_table.h"
#include "node/ingest/intake.h"
#include "node/ingest/receiver.h"
#include "node/lane_outputs.h"
#include "node/report/figures.h"

namespace qv::node {

// The alignment keeps the counters of two lanes out of the same cache line.
class alignas(128) Lane {
  public:
    // What the lanes of one program share.
    struct Shared {
        CallLimits limits;
        tools::AllowedNetworks allowed;
        std::shared_ptr<CallDirectory> directory;
        Intake::OnMalformed on_malformed;
    };

    // Receives a datagram that came to another lane than its call key says; passes it on.
    using PassOn = std::function<void(std::size_t lane, const Datagram& datagram)>;

    explicit Lane(asio::io_context& loop);
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    Receiver& receiver() { return receiver_; }

    // This is lane `number`, counted from 0, of `lanes` that share a port. The system passes each
    // datagram to the lane of its call, with two exceptions: while the sockets are bound one after
    // the other, and when datagrams come in bundles (UDP_SEGMENT of a sender on this machine,
    // rx-gro-list of a network card), which it passes by their first datagram. Those that came to
    // the wrong lane go to `pass_on`.
    void share_port(std::size_t number, std::size_t lanes, PassOn pass_on);

    // Call it before the first datagram. The outputs must outlive the lane.
    void open_calls(const Shared& shared, LaneOutputs& outputs);

    // Handles a datagram of a call of this lane, from wherever it comes.
    void receive(const Datagram& datagram) { intake_->receive(datagram); }

    // Call it several times a second.
    void tick(Micros now);

    CallTable& calls() { return *calls_; }
    LaneFigures figures();

  private:
    void take(const Datagram& datagram);

    std::size_t number_ = 0;
    std::size_t lanes_ = 1;
    PassOn pass_on_;
    std::optional<CallTable> calls_;
    std::optional<Intake> intake_;
    Receiver receiver_;
    LaneOutputs* outputs_ = nullptr;  // Not owned.
};

}  // namespace qv::node
