// What outputs learn of calls: the one interface between calls and all that is made of
// them - files, lines, events, pictures, counters.
//
// To add an output:
//   1. Derive a class from CallListener and override the functions that it needs.
//   2. If it keeps something for each call, override begin_call() and return an object,
//      itself a CallListener, that keeps it. That object gets what happens to its call, in
//      place of the output, and is deleted after the call's end. So the state of a call is
//      at hand without looking it up for each packet.
//   3. Build it in Outputs (node/outputs.cpp) and add it to the list there. Outputs are
//      called in the order of the list.
// Neither the call table nor Call changes.
//
// Order of a call: begin_call; then started (if the start packet comes), features_changed,
// terminated, and for each side side_begun, rate_decided, and data, pause, gap, audio and
// late as packets come; last ended. rate_decided comes once for each side of which a packet
// came, at the latest before ended; until then the side's sample_rate() is 0.
//
// Positions are in samples of their side, counted from its beginning: audio and the silence
// of gaps, without pauses.
//
// All functions are called on the thread that owns the call. They must not wait. A packet,
// audio and the other arguments are valid only until the function returns, a call until
// ended() returns.
#pragma once

#include <memory>
#include <string>

#include "node/calls/pause_finder.h"
#include "node/calls/reorder_buffer.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

class Call;

enum class EndReason {
    TERMINATED,  // The terminate packet came.
    REPLACED,    // Another start of the same call came without a terminate.
    TIMED_OUT,   // Nothing came for too long.
    TOO_OLD,
    SHUTDOWN,  // The receiver ends.
};

constexpr const char* name_of(EndReason reason) {
    switch (reason) {
        case EndReason::TERMINATED:
            return "terminated";
        case EndReason::REPLACED:
            return "replaced";
        case EndReason::TIMED_OUT:
            return "timed_out";
        case EndReason::TOO_OLD:
            return "too_old";
        case EndReason::SHUTDOWN:
            return "shutdown";
    }
    return "unknown";
}

// Audio of a side, in order.
struct Audio {
    const std::int16_t* samples;
    std::size_t count;
    std::uint64_t position;
    std::int64_t send_time;  // Of the packet that brought it.
};

// What became of a file.
struct FileReport {
    std::string path;
    std::string error;  // Empty when all of it was written.
};

class CallListener {
  public:
    virtual ~CallListener() = default;

    // A packet of a call that was not known came. Returns what listens to this call; null
    // when that is the output itself.
    virtual std::unique_ptr<CallListener> begin_call(Call&) { return nullptr; }

    // The start packet came; the call has its fields.
    virtual void started(const Call&, const media::Packet&) {}
    // A control packet came; the call has its features already. Where a side was when the
    // packet was sent: CallSide::position_at(packet.send_time).
    virtual void features_changed(const Call&, const media::Packet&) {}
    // The terminate packet came.
    virtual void terminated(const Call&, const media::Packet&) {}
    // A terminate packet is not believed: it claims to have been sent far ahead of the call's
    // other packets, and those refute it. The call goes on.
    virtual void terminate_refused(const Call&, const media::Packet&) {}
    // A packet of the call came from an address that the call does not belong to, and is
    // dropped; Call::foreign_packets() has counted it.
    virtual void foreign(const Call&, const sockaddr_in& /*source*/) {}

    // The first data packet of a side came.
    virtual void side_begun(const Call&, Side) {}
    // The sample rate of a side is known from now on, or assumed (CallSide::rate_assumed()).
    virtual void rate_decided(const Call&, Side) {}
    // A data packet came, whatever becomes of it.
    virtual void data(const Call&, const media::Packet&) {}
    // A side's audio goes on.
    virtual void audio(const Call&, Side, const Audio&) {}
    // Audio of a side is missing; silence of `filled_samples` stands for it.
    virtual void gap(const Call&, Side, const Gap&) {}
    // The sender had been silent; comes before the audio that ends the pause.
    virtual void pause(const Call&, Side, const Pause&) {}
    // A data packet came after its place had been given up.
    virtual void late(const Call&, Side, const media::Packet&) {}

    // A file of the call could not be written, as an output reported to the call.
    virtual void file_failed(const Call&, const FileReport&) {}
    // Some times a second, whether packets come or not.
    virtual void tick(const Call&, Micros) {}
    // The call is over. Nothing comes after it but file_failed, of a later output's files.
    virtual void ended(const Call&, EndReason) {}
};

}  // namespace qv::node
