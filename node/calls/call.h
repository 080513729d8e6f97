// One call: handles its packets and passes on what becomes of them.
//
// start, control and terminate packets are handled here, data packets by the two sides. What
// happens goes to the listeners that the outputs chose when the call began; see
// call_listener.h. Owned by the call table; belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "node/calls/call_limits.h"
#include "node/calls/call_listener.h"
#include "node/calls/call_side.h"
#include "node/calls/drop.h"
#include "node/calls/sender_clock.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

// The start packet's fields, kept.
struct StartFields {
    std::uint16_t call_flags = 0;
    std::int64_t send_time = 0;
    std::uint64_t created_time = 0;
    std::uint64_t configured_time = 0;
    std::int64_t configured_clock = 0;
    std::uint64_t rule_id = 0;
    std::string report_node;  // Empty when not given.
    media::features16_t features{};
    std::string call_reference;

    bool outbound() const { return (call_flags & media::FLAG_OUTBOUND) != 0; }
    bool rule_id_given() const { return (call_flags & media::FLAG_RULE_ID) != 0; }
};

// Where each side of a call goes on; nothing for a side of which no packet came.
using SidePlaces = std::array<std::optional<SidePlace>, SIDE_COUNT>;

class Call {
  public:
    // `arrival` is that of the call's first packet. The outputs are asked what listens to
    // the call. `limits` and `outputs` must outlive the call.
    Call(const Uuid& uuid, std::uint64_t call_key, const Arrival& arrival, const CallLimits& limits,
         const std::vector<CallListener*>& outputs);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // For the call table.

    // Takes in a packet of this call's UUID; returns why it is dropped, if it is.
    std::optional<Drop> receive(const media::Packet& packet, const Arrival& arrival);
    // Whether the packet starts the same call anew, as when its media bug was closed and its
    // terminate packet lost. Such a packet is for another Call.
    bool is_replaced_by(const media::Packet& packet, const Arrival& arrival) const;
    // To be called some times a second: gives up what has been waited for too long.
    void tick(Micros now);
    // Why the call is to be ended now, if it is. What outputs still work on delays that, for
    // two seconds at most.
    std::optional<EndReason> due(Micros now) const;
    // Delivers what is held and reports the end.
    void end(EndReason reason);
    // Begins the sides where an earlier call left them; before the first packet.
    void continue_from(const SidePlaces& places);
    SidePlaces places() const;

    // For outputs, while one of their functions runs.

    // Sets the beginning of the names of the call's files.
    void set_file_stem(std::string stem) { file_stem_ = std::move(stem); }
    // Adds a file of the call's audio to those that reports name at its end.
    void add_file(FileReport file) { files_.push_back(std::move(file)); }
    // Pass on what an analysis noticed; see call_listener.h.
    void report_activity(Side side, const Activity& activity);
    void report_sample(Side side, const FoundSample& sample);
    void report_skipped(Side side, std::uint64_t samples);
    // Passes on that a file of the call could not be written.
    void report_failed_file(const FileReport& file);
    // The side's sample rate in Hz; decides on one from what is known, if none has been found.
    int decide_rate(Side which);

    const Uuid& uuid() const { return uuid_; }
    std::uint64_t call_key() const { return call_key_; }
    // Where the packets come from: address and port of the one that was taken in last. The
    // address changes only where the limits allow any source.
    const sockaddr_in& source() const { return source_; }
    // Packets from other addresses, which were dropped.
    std::uint64_t foreign_packets() const { return foreign_packets_; }
    Micros first_seen() const { return first_seen_; }
    Micros last_seen() const { return last_seen_; }
    // Nothing until the start packet comes.
    const std::optional<StartFields>& start() const { return start_; }
    // Other packets came before the start packet.
    bool started_late() const { return started_late_; }
    // In effect: those of the start packet, and what control packets changed.
    media::features16_t features() const { return features_; }
    std::uint64_t control_packets() const { return control_packets_; }
    // The terminate packet has come; the call stays for packets that it has overtaken.
    bool ending() const { return ends_at_.has_value(); }
    // Send time of the terminate packet, while ending; no later than the call's other packets
    // and the time since then allow.
    std::int64_t terminate_time() const { return terminate_time_; }
    // The terminate packet claims to have been sent far ahead of the call's other packets. It
    // is accepted because nothing came after it.
    bool ended_implausibly() const { return ended_implausibly_; }
    // The beginning of the time axis, as a send time: when the first sample of the side whose
    // audio came first was due. That sample may be missing.
    std::optional<std::int64_t> first_audio_time() const;
    // The receiver joined the running call, and the rate of a side could not be found: how the
    // sides lie beside each other could not be told for sure.
    bool sides_may_be_apart() const;
    // Empty when the call is not to have files.
    const std::string& file_stem() const { return file_stem_; }
    const std::vector<FileReport>& files() const { return files_; }
    const std::vector<FileReport>& failed_files() const { return failed_files_; }
    const CallSide& side(Side which) const { return sides_[index_of(which)]; }

  private:
    friend class CallSide;

    // A terminate packet that claims to have been sent far ahead, until it is accepted or refused.
    struct ImplausibleEnd {
        std::int64_t send_time;
        std::uint16_t leg_word;
        Micros came;
    };

    // What fixes the time axis. The rate that tells its beginning may be found later.
    struct AxisMark {
        Side side;
        std::int64_t send_time;
        std::uint64_t samples;  // Of the side, before the audio sent then.
    };

    // Calls `visit` with each listener, in the order of the outputs.
    template <typename Visit>
    void for_each_listener(Visit visit) {
        for (CallListener* listener : listeners_) {
            visit(*listener);
        }
    }
    CallSide& mutable_side(Side which) { return sides_[index_of(which)]; }
    // The beginning of the time axis. If nothing came before, the axis begins with that side:
    // its audio after `samples` was sent at `send_time`.
    std::int64_t axis_begin(Side which, std::int64_t send_time, std::uint64_t samples);

    void run_features(std::int64_t send_time);
    std::optional<EndReason> reason_to_end(Micros now) const;
    void wrap_up(Micros now);
    bool working() const;

    std::optional<Drop> on_start(const media::Packet& packet);
    std::optional<Drop> on_control(const media::Packet& packet, Micros now);
    std::optional<Drop> on_terminate(const media::Packet& packet, Micros now);
    std::optional<Drop> on_data(const media::Packet& packet, Micros now);
    bool belongs_to(const sockaddr_in& source) const;
    void terminate(const media::Packet& packet, Micros now);
    void refuse_terminate(const media::Packet& packet);
    media::Packet implausible_terminate() const;
    void accept_implausible_terminate(Micros now);
    std::int64_t credible(std::int64_t send_time, Micros now) const;

    const Uuid uuid_;
    const std::uint64_t call_key_;
    sockaddr_in source_;
    const CallLimits& limits_;
    const Micros first_seen_;
    Micros last_seen_;
    std::optional<StartFields> start_;
    bool started_late_ = false;
    media::features16_t features_{};
    std::uint64_t control_packets_ = 0;
    std::int64_t control_time_ = 0;  // Send time of the latest control packet.
    std::uint64_t foreign_packets_ = 0;
    SenderClock clock_;
    std::optional<Micros> ends_at_;
    std::optional<Micros> wrapped_up_;  // When; nothing while the call goes on.
    std::int64_t terminate_time_ = 0;
    std::optional<ImplausibleEnd> implausible_end_;
    bool ended_implausibly_ = false;
    std::optional<AxisMark> axis_mark_;
    std::array<CallSide, SIDE_COUNT> sides_;
    std::string file_stem_;
    std::vector<FileReport> files_;
    std::vector<FileReport> failed_files_;
    std::vector<std::unique_ptr<CallListener>> own_listeners_;  // Those made for this call.
    std::vector<CallListener*> listeners_;
};

}  // namespace qv::node
