// One call: handles its packets and reports the results.
//
// Start, control and terminate packets are handled here, data packets by the two sides. Results go
// to the listeners that the outputs chose when the call began; see call_listener.h. Owned by the
// call table; belongs to one thread.
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

// A copy of the start packet's fields.
struct StartFields {
    std::uint16_t call_flags = 0;
    std::int64_t send_time = 0;
    std::uint64_t created_time = 0;
    std::uint64_t configured_time = 0;
    std::int64_t configured_clock = 0;
    std::uint64_t rule_id = 0;
    std::string report_node;  // Empty if not given.
    media::features16_t features{};
    std::string call_reference;

    bool outbound() const { return (call_flags & media::FLAG_OUTBOUND) != 0; }
    bool rule_id_given() const { return (call_flags & media::FLAG_RULE_ID) != 0; }
};

// Where each side of a call continues. Nullopt for a side without packets.
using SidePlaces = std::array<std::optional<SidePlace>, SIDE_COUNT>;

class Call {
  public:
    // `arrival` is that of the call's first packet. Each output returns its listener for the call.
    // `limits` and `outputs` must outlive the call.
    Call(const Uuid& uuid, std::uint64_t call_key, const Arrival& arrival, const CallLimits& limits,
         const std::vector<CallListener*>& outputs);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // For the call table.

    // Handles a packet with this call's UUID. Returns why it is dropped, or nullopt.
    std::optional<Drop> receive(const media::Packet& packet, const Arrival& arrival);
    // Whether the packet starts the same call again, for example because its media bug was closed
    // and the terminate packet lost. Such a packet belongs to a new Call.
    bool is_replaced_by(const media::Packet& packet, const Arrival& arrival) const;
    // Call it several times a second. Gives up waiting for packets that are too late.
    void tick(Micros now);
    // Why the call must end now, or nullopt. The work of outputs delays the end by at most two
    // seconds.
    std::optional<EndReason> due(Micros now) const;
    // Delivers everything that is held and has the outputs complete their files. Nothing may be
    // received after it.
    void close(EndReason reason);
    // Has the outputs write what describes the whole call, once its other files are complete.
    void sum_up(EndReason reason);
    // Whether outputs still complete files; tick() is not needed for that.
    bool completing() const;
    // Reports the end. The files of the call should be complete.
    void report_end(EndReason reason);
    // Makes the sides continue where an earlier call left them. Call it before the first packet.
    void continue_from(const SidePlaces& places);
    SidePlaces places() const;

    // For outputs, while one of their functions runs.

    // Sets the beginning of the names of the call's files.
    void set_file_stem(std::string stem) { file_stem_ = std::move(stem); }
    // Adds a file of the call's audio, so that the reports at the end name it.
    void add_file(FileReport file) { files_.push_back(std::move(file)); }
    // Sets the path of the file that describes the call and its files.
    void set_sidecar(std::string path) { sidecar_ = std::move(path); }
    // Report what an analysis detected; see call_listener.h.
    void report_activity(Side side, const Activity& activity);
    void report_sample(Side side, const FoundSample& sample);
    void report_skipped(Side side, std::uint64_t samples);
    // Reports that a file of the call could not be written.
    void report_failed_file(const FileReport& file);
    // Whether the listener receives data() and audio(), as all do at first. A listener that needs
    // them only at times turns them off in between, to save time. Not to be called from these two
    // functions.
    void set_hearing(const CallListener& listener, bool hears);
    // From now on, the waveforms of both sides are gathered and passed to CallListener::wave().
    void gather_waves();
    // Passes the complete columns of a side's waveform on, which otherwise happens about once a
    // second.
    void report_wave(Side side) { mutable_side(side).report_wave(0); }
    // The sample rate of the side in Hz. If none has been found, decides on one from what is known.
    int decide_rate(Side which);

    const Uuid& uuid() const { return uuid_; }
    std::uint64_t call_key() const { return call_key_; }
    // The sender: address and port of the last packet that was accepted. The address changes only
    // if the limits allow any source.
    const sockaddr_in& source() const { return source_; }
    // Dropped packets from other addresses.
    std::uint64_t foreign_packets() const { return foreign_packets_; }
    Micros first_seen() const { return first_seen_; }
    Micros last_seen() const { return last_seen_; }
    // Nullopt until the start packet comes.
    const std::optional<StartFields>& start() const { return start_; }
    // Whether other packets came before the start packet.
    bool started_late() const { return started_late_; }
    // The features in effect: those of the start packet, as changed by control packets.
    media::features16_t features() const { return features_; }
    std::uint64_t control_packets() const { return control_packets_; }
    // Whether the terminate packet has come. The call waits a moment for packets that were sent
    // earlier.
    bool ending() const { return ends_at_.has_value(); }
    // Send time of the terminate packet, while ending. Limited to what the call's other packets and
    // the time since then allow.
    std::int64_t terminate_time() const { return terminate_time_; }
    // Whether the terminate packet claims to have been sent far ahead of the call's other packets.
    // It was accepted because nothing came after it.
    bool ended_implausibly() const { return ended_implausibly_; }
    // The beginning of the time axis, as a send time: when the first sample of the side that came
    // first was due. That sample itself may be missing.
    std::optional<std::int64_t> first_audio_time() const;
    // Whether the alignment of the sides is uncertain: the receiver joined the running call, and
    // the rate of a side could not be found.
    bool sides_may_be_apart() const;
    // Empty if the call gets no files.
    const std::string& file_stem() const { return file_stem_; }
    const std::vector<FileReport>& files() const { return files_; }
    // Empty if there is none.
    const std::string& sidecar() const { return sidecar_; }
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

    // Fixes the time axis. The sample rate, and with it the beginning of the axis, may be found
    // later.
    struct AxisMark {
        Side side;
        std::int64_t send_time;
        std::uint64_t samples;  // Samples of the side before the audio sent then.
    };

    // Calls `visit` with each listener, in the order of the outputs.
    template <typename Visit>
    void for_each_listener(Visit visit) {
        for (CallListener* listener : listeners_) {
            visit(*listener);
        }
    }
    // Those that hear the audio of the call.
    template <typename Visit>
    void for_each_hearer(Visit visit) {
        for (CallListener* hearer : hearers_) {
            visit(*hearer);
        }
    }
    CallSide& mutable_side(Side which) { return sides_[index_of(which)]; }
    // Returns the beginning of the time axis. If nothing came before, the axis begins with that
    // side, whose audio after `samples` was sent at `send_time`.
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
    std::optional<Micros> wrapped_up_;  // When this happened. Nullopt while the call goes on.
    std::int64_t terminate_time_ = 0;
    std::optional<ImplausibleEnd> implausible_end_;
    bool ended_implausibly_ = false;
    std::optional<AxisMark> axis_mark_;
    std::array<CallSide, SIDE_COUNT> sides_;
    std::string file_stem_;
    std::vector<FileReport> files_;
    std::vector<FileReport> failed_files_;
    std::string sidecar_;
    std::vector<std::unique_ptr<CallListener>> own_listeners_;  // Those created for this call.
    std::vector<CallListener*> listeners_;
    std::vector<CallListener*> hearers_;  // In the same order.
};

}  // namespace qv::node
