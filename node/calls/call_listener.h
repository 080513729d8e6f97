// The interface through which outputs follow calls: files, lines, events, pictures, counters.
//
// To add an output:
//   1. Derive a class from CallListener and override the functions that it needs.
//   2. If it keeps state for each call, override begin_call() and return a CallListener with that
//      state. This object then receives the events of its call in place of the output, and is
//      deleted after the end of the call. The state of a call is thus found without a lookup.
//   3. Construct it in Outputs (node/outputs.cpp) and add it to the list there. Outputs are called
//      in the order of the list.
// Neither the call table nor Call changes.
//
// Order of the functions for a call: begin_call; started, if the start packet comes;
// features_changed and terminated; for each side side_begun, rate_decided, and then data, pause,
// gap, audio, wave, running_changed, rate_changed and late as packets come; wrapping_up; closing;
// summing_up; finally ended. An output that needs data and audio only at times says so with
// Call::set_hearing().
// rate_decided comes once for each side with packets, before ended at the latest. Until then the
// side's sample_rate() is 0. Any rate_changed comes after it.
//
// activity, sample_found and skipped are the results of an analysis of a side
// (Call::report_...). They come at any time between the side's first audio and ended, but always
// after the audio that they are about. Those of one side come in the order of detection: the
// position of a sample may lie before that of an activity reported earlier.
//
// Positions are samples of their side, counted from its beginning: audio and the silence of gaps,
// without pauses.
//
// All functions are called on the thread that owns the call. They must not wait. A packet, audio
// and the other arguments are valid only until the function returns, a call until ended() returns.
#pragma once

#include <memory>
#include <string>

#include "node/calls/pause_finder.h"
#include "node/calls/rate_change_finder.h"
#include "node/calls/reorder_buffer.h"
#include "node/calls/types.h"
#include "node/calls/wave_gatherer.h"
#include "quorvane/media_packet.h"

namespace qv::node {

class Call;

enum class EndReason {
    TERMINATED,  // The terminate packet came.
    REPLACED,    // Another start packet of the same call came without a terminate packet.
    TIMED_OUT,   // Nothing came for too long.
    TOO_OLD,
    SHUTDOWN,  // The media node ends.
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
    std::int64_t send_time;  // Of the packet that contained it.
};

// Activity on a side that began or ended.
struct Activity {
    bool active;
    std::uint64_t position;  // First sample that is active, or that is no longer active.
    std::uint64_t noticed;   // Position up to which the side had been heard.
};

// A reference that was recognised.
struct FoundSample {
    std::string name;
    // Where the reference begins in the side. Below 0 if the side began in the middle of it.
    std::int64_t position;
    std::uint64_t noticed;  // As above.
    double score;           // 0 to 1.
};

class CallListener {
  public:
    virtual ~CallListener() = default;

    // The first packet of an unknown call came. Returns the listener for this call, or null if the
    // output itself is the listener.
    virtual std::unique_ptr<CallListener> begin_call(Call&) { return nullptr; }

    // The start packet came. The call has its fields.
    virtual void started(const Call&, const media::Packet&) {}
    // A control packet came. The call has its features already.
    // CallSide::position_at(packet.send_time) tells where a side was when the packet was sent.
    virtual void features_changed(const Call&, const media::Packet&) {}
    // The terminate packet came.
    virtual void terminated(const Call&, const media::Packet&) {}
    // A terminate packet is refused, because it claims to have been sent far ahead of the call's
    // other packets, and those refute it. The call goes on.
    virtual void terminate_refused(const Call&, const media::Packet&) {}
    // A packet of the call came from an address that the call does not belong to, and is dropped.
    // Call::foreign_packets() has counted it.
    virtual void foreign(const Call&, const sockaddr_in& /*source*/) {}

    // The first data packet of a side came.
    virtual void side_begun(const Call&, Side) {}
    // From now on the sample rate of a side is known, or assumed (CallSide::rate_assumed()).
    virtual void rate_decided(const Call&, Side) {}
    // The side continues at another rate, which CallSide::sample_rate() already returns. Called
    // between the audio before the change and the audio after it.
    virtual void rate_changed(const Call&, Side, const RateChange&) {}
    // A data packet came, whether it is used or dropped.
    virtual void data(const Call&, const media::Packet&) {}
    // The next audio of a side.
    virtual void audio(const Call&, Side, const Audio&) {}
    // Columns of a side's waveform, if an output has asked for them (Call::gather_waves()).
    virtual void wave(const Call&, Side, const Wave&) {}
    // Audio of a side is missing. Silence of `filled_samples` replaces it.
    virtual void gap(const Call&, Side, const Gap&) {}
    // The sender had been silent. Called before the audio that ends the pause.
    virtual void pause(const Call&, Side, const Pause&) {}
    // From `position` on, other features run on the side's audio: CallSide::running(). Called
    // between the audio before that position and the audio after it.
    virtual void running_changed(const Call&, Side, std::uint64_t /*position*/) {}
    // An analysis detected that activity began or ended.
    virtual void activity(const Call&, Side, const Activity&) {}
    // An analysis recognised a reference.
    virtual void sample_found(const Call&, Side, const FoundSample&) {}
    // An analysis left out these samples because it could not keep up.
    virtual void skipped(const Call&, Side, std::uint64_t /*samples*/) {}
    // A data packet came after the wait for it had ended.
    virtual void late(const Call&, Side, const media::Packet&) {}

    // A file of the call could not be written, as an output reported to the call.
    virtual void file_failed(const Call&, const FileReport&) {}
    // Called several times a second, even if no packets come.
    virtual void tick(const Call&, Micros) {}
    // The call is about to end: all its audio has come. If the call was given up for lack of
    // packets and then goes on after all, more packets follow and this is called again.
    virtual void wrapping_up(const Call&) {}
    // Whether the output is still working on something that it will report of the call. After
    // wrapping_up, the end waits for this for a limited time, but not if the node ends or the call
    // starts again.
    virtual bool working(const Call&) const { return false; }
    // The call is over: no packets of it are accepted any more. The outputs complete its files.
    virtual void closing(const Call&, EndReason) {}
    // All files of the call that hold audio are complete. The outputs write what describes the
    // whole call.
    virtual void summing_up(const Call&, EndReason) {}
    // Whether the output is still completing files. After closing, summing_up waits for it, and
    // after summing_up, ended does.
    virtual bool completing(const Call&) const { return false; }
    // The call has ended. Nothing follows except file_failed, for files of a later output.
    virtual void ended(const Call&, EndReason) {}
};

}  // namespace qv::node
