// Counters of all calls since the node started. Belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "node/calls/call_listener.h"
#include "node/calls/drop.h"
#include "quorvane/media_packet.h"

namespace qv::node {

struct Totals {
    // Start, terminate, data, control. Indexed by type - 0x81.
    std::array<std::uint64_t, 4> packets{};
    std::array<std::uint64_t, DROP_COUNT> dropped{};
    std::uint64_t calls_begun = 0;
    std::uint64_t calls_ended = 0;
    std::uint64_t calls_not_terminated = 0;  // Ended without a terminate packet.
    std::uint64_t calls_without_start = 0;
    std::uint64_t calls_apart = 0;  // The alignment of their sides was uncertain when they ended.
    std::uint64_t audio_bytes = 0;
    std::uint64_t gaps = 0;
    // No longer waited for. Those that came later are dropped as LATE.
    std::uint64_t lost_packets = 0;
    std::uint64_t reordered = 0;  // Of ended calls.
    std::uint64_t silence_samples = 0;
    std::uint64_t pauses = 0;         // Of the senders.
    std::uint64_t assumed_rates = 0;  // Sides whose packets did not show their sample rate.
    std::uint64_t rate_changes = 0;   // Sample rates that changed in mid-call.
    std::uint64_t file_errors = 0;

    // Adds the counters of other calls.
    void add(const Totals& others);
    std::uint64_t all_packets() const { return packets[0] + packets[1] + packets[2] + packets[3]; }
    void count_packet(media::PacketType type) {
        ++packets[static_cast<std::size_t>(type) -
                  static_cast<std::size_t>(media::PacketType::START)];
    }
    void count_drop(Drop reason) { ++dropped[static_cast<std::size_t>(reason)]; }
    std::uint64_t dropped_for(Drop reason) const {
        return dropped[static_cast<std::size_t>(reason)];
    }
};

// Counts the events of calls. An output that the call table owns.
class CallCounter : public CallListener {
  public:
    // `totals` must outlive the counter.
    explicit CallCounter(Totals& totals) : totals_(totals) {}

    std::unique_ptr<CallListener> begin_call(Call& call) override;
    void terminate_refused(const Call& call, const media::Packet& packet) override;
    void data(const Call& call, const media::Packet& packet) override;
    void rate_decided(const Call& call, Side side) override;
    void rate_changed(const Call& call, Side side, const RateChange& change) override;
    void pause(const Call& call, Side side, const Pause& pause) override;
    void gap(const Call& call, Side side, const Gap& gap) override;
    void file_failed(const Call& call, const FileReport& file) override;
    void ended(const Call& call, EndReason reason) override;

  private:
    Totals& totals_;
};

}  // namespace qv::node
