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
// terminated, and for each side side_begun, rate_decided, and data, pause, gap, audio,
// running_changed and late as packets come; wrapping_up; last ended. rate_decided comes once
// for each side of which a packet came, at the latest before ended; until then the side's
// sample_rate() is 0.
//
// activity, sample_found and skipped are what an analysis reports of a side (Call::report_...).
// They come at any time between the side's first audio and ended, each later than the audio
// that it is about. Those of one side come in the order in which they were noticed: the
// position of a sample may lie before that of an activity reported earlier.
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

// Sound of a side that began or ended.
struct Activity {
    bool active;
    std::uint64_t position;  // First sample that is active, or no more so.
    std::uint64_t noticed;   // Position up to which the side had been heard.
};

// A reference that was recognised.
struct FoundSample {
    std::string name;
    // Where the reference begins in the side. Below 0 where the side began in its midst.
    std::int64_t position;
    std::uint64_t noticed;  // As above.
    double score;           // 0 to 1.
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
    // A terminate packet is refused: it claims to have been sent far ahead of the call's
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
    // What is done with the side's audio from `position` on has changed: CallSide::running().
    // Comes between the audio before that position and the audio after it.
    virtual void running_changed(const Call&, Side, std::uint64_t /*position*/) {}
    // An analysis noticed that activity began or ended.
    virtual void activity(const Call&, Side, const Activity&) {}
    // An analysis recognised a reference.
    virtual void sample_found(const Call&, Side, const FoundSample&) {}
    // Samples that an analysis could not keep up with, and left out.
    virtual void skipped(const Call&, Side, std::uint64_t /*samples*/) {}
    // A data packet came after its place had been given up.
    virtual void late(const Call&, Side, const media::Packet&) {}

    // A file of the call could not be written, as an output reported to the call.
    virtual void file_failed(const Call&, const FileReport&) {}
    // Some times a second, whether packets come or not.
    virtual void tick(const Call&, Micros) {}
    // The call is about to end: all its audio has come. May be followed by more packets, and
    // come again, when the call was given up for lack of packets and goes on after all.
    virtual void wrapping_up(const Call&) {}
    // Something that the output will still report of the call is being worked on. The end waits
    // for that after wrapping_up, for a while; not when the receiver ends or the call starts
    // anew.
    virtual bool working(const Call&) const { return false; }
    // The call is over. Nothing comes after it but file_failed, of a later output's files.
    virtual void ended(const Call&, EndReason) {}
};

}  // namespace qv::node
