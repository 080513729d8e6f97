// What can be told about calls. Reports, logs and views derive from this and override
// what they care for; the call table calls them, in the order of the packets.
//
// A call or packet is valid only until the function returns.
#pragma once

#include "node/calls/call.h"

namespace qv::node {

class CallListener {
  public:
    virtual ~CallListener() = default;

    // The start packet of a call came.
    virtual void started(const Call&, const media::Packet&) {}
    // A control packet came; the call has its features already.
    virtual void features_changed(const Call&, const media::Packet&) {}
    // The terminate packet came.
    virtual void terminated(const Call&, const media::Packet&) {}
    // A data packet came, whatever becomes of it.
    virtual void data(const Call&, const media::Packet&) {}
    // A side's audio goes on: what the files get, in the same order.
    virtual void audio(const Call&, Side, const std::int16_t*, std::size_t) {}
    // The sender had been silent; comes before the audio that ends the pause.
    virtual void pause(const Call&, Side, const Pause&) {}
    virtual void gap(const Call&, Side, const Gap&) {}
    // A data packet came after its place had been given up.
    virtual void late(const Call&, Side, const media::Packet&) {}
    // A file of the call could not be written.
    virtual void file_failed(const Call&, const FileReport&) {}
    // The call is over and its files are closed.
    virtual void ended(const Call&, EndReason) {}
};

}  // namespace qv::node
