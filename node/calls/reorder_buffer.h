// Puts the data packets of one side of a call in order.
//
// A packet that comes early waits for the packets before it, up to a number of packets and a time.
// Then the missing ones become a gap, whose length follows from the sample offsets. Sequence
// numbers and sample offsets wrap modulo 2^32.
//
// A packet is implausible, and dropped, if its numbers cannot follow from the ones before; each
// missing packet holds at most 661 samples. If the next packet continues it, the sender has jumped,
// and the buffer follows. A single forged packet therefore does no harm, and a sender may restart
// its counters.
//
// A packet after a gap is implausible while packets before the gap keep coming, or if its send
// time leaves no time for what is missing. It is delivered only if a later packet confirms it, so
// that a forged one inserts no silence.
//
// Plain values in, calls of an OrderedOutput out; no clock, file or network. Belongs to one thread.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <vector>

#include "node/calls/types.h"

namespace qv::node {

struct AudioPacket {
    std::uint32_t sequence_number;
    std::uint32_t sample_offset;
    std::uint16_t sample_count;
    const std::int16_t* samples;
    std::int64_t send_time;  // Passed on with the audio.
};

// Audio that never came, or came too late.
struct Gap {
    std::uint32_t sequence_number;  // Of the first missing packet.
    std::uint32_t lost_packets;     // 0 if the sender jumped without losing any.
    std::uint32_t sample_offset;    // Where the missing audio begins, as sent.
    std::uint64_t missing_samples;
    std::uint64_t filled_samples;  // The silence that replaces it; less if it exceeds the limit.
    std::uint64_t position;        // Samples delivered before the gap, silence included.
};

// Receives what a reorder buffer delivers, in order.
class OrderedOutput {
  public:
    virtual ~OrderedOutput() = default;
    virtual void audio(const std::int16_t* samples, std::size_t count, std::int64_t send_time) = 0;
    // Replace it with `gap.filled_samples` of silence.
    virtual void gap(const Gap& gap) = 0;
};

class ReorderBuffer {
  public:
    struct Limits {
        std::size_t packets = 32;  // The most packets held while an earlier one is missing.
        Micros wait{200'000};      // How long packets are held.
        std::uint64_t gap_samples = 480'000;  // The longest silence for one gap.
    };

    struct Stats {
        std::uint64_t packets = 0;  // All that came, whether delivered or dropped.
        std::uint64_t samples = 0;  // Delivered audio.
        // Packets no longer waited for. Those that came later are `late`.
        std::uint64_t skipped = 0;
        std::uint64_t gaps = 0;       // Places with missing audio or packets.
        std::uint64_t silence = 0;    // Samples filled in.
        std::uint64_t unfilled = 0;   // Samples missing beyond the limit of a gap.
        std::uint64_t reordered = 0;  // Came after a later packet, but in time to be put in order.
        std::uint64_t duplicates = 0;
        std::uint64_t late = 0;         // Came after the wait for them had ended.
        std::uint64_t implausible = 0;  // Dropped.
        std::uint64_t resyncs = 0;      // Jumps that the next packet confirmed.

        std::uint64_t lost() const { return skipped > late ? skipped - late : 0; }
    };

    enum class Verdict { DELIVERED, HELD, DUPLICATE, LATE, IMPLAUSIBLE };

    explicit ReorderBuffer(const Limits& limits) : limits_(limits) {}

    // Sets the packet that is expected first; the counters of a side begin with 1 and 0. It was
    // sent no earlier than `not_before`, if given.
    void begin(std::uint32_t sequence_number, std::uint32_t sample_offset,
               std::optional<std::int64_t> not_before = std::nullopt);
    // Ignores earlier packets: the earliest of those that come within the wait is the first.
    void join() { joining_ = true; }
    bool begun() const { return begun_; }

    // Handles a packet that came at `now`.
    Verdict receive(const AudioPacket& packet, Micros now, OrderedOutput& out);

    // Gives up waiting for packets that are too late.
    void advance(Micros now, OrderedOutput& out);

    // Delivers everything that is still held.
    void finish(OrderedOutput& out);

    void set_gap_limit(std::uint64_t samples) { limits_.gap_samples = samples; }
    // In Hz. Until it is known, comparisons of audio with time assume a high rate.
    void set_rate(int rate) { rate_ = rate; }
    const Stats& stats() const { return stats_; }
    // Samples delivered so far, including silence.
    std::uint64_t position() const { return stats_.samples + stats_.silence; }
    // The numbers expected in the next packet in order.
    std::uint32_t expected_sequence_number() const {
        return is_settling() ? held_.front().sequence_number : next_;
    }
    std::uint32_t expected_offset() const {
        return is_settling() ? held_.front().sample_offset : next_offset_;
    }
    std::size_t held() const { return held_.size(); }

  private:
    // How many packets back a repeated packet is distinguished from a late one.
    static constexpr std::uint32_t HISTORY = 1024;

    struct Held {
        std::uint32_t sequence_number;
        std::uint32_t sample_offset;
        std::int64_t send_time;
        Micros arrived;
        std::uint64_t number;  // In the order of arrival, counted like Stats::packets.
        std::vector<std::int16_t> samples;
    };

    // The packet that would confirm an implausible one.
    struct Continuation {
        std::uint32_t sequence_number = 0;
        std::uint32_t sample_offset = 0;
        bool awaited = false;
    };

    std::uint32_t ahead_of_next(std::uint32_t sequence_number) const {
        return sequence_number - next_;
    }
    bool is_settling() const { return joining_ && !held_.empty(); }
    Verdict receive_joining(const AudioPacket& packet, Micros now, OrderedOutput& out);
    void settle(OrderedOutput& out);
    bool plausible(const AudioPacket& packet) const;
    Verdict receive_past(const AudioPacket& packet, OrderedOutput& out);
    Verdict receive_implausible(const AudioPacket& packet, OrderedOutput& out);
    Verdict hold(const AudioPacket& packet, Micros now, OrderedOutput& out);
    bool replaces(const AudioPacket& packet, std::vector<Held>::const_iterator place) const;
    bool first_held_implausible() const;
    bool first_held_refuted() const;
    bool is_too_much(std::uint64_t missing_samples, std::int64_t send_time) const;
    void drop_first_held();
    void release_first_held(OrderedOutput& out);
    void resync(const AudioPacket& packet, OrderedOutput& out);
    void deliver(const AudioPacket& packet, OrderedOutput& out);
    void deliver_first_held(OrderedOutput& out);
    void deliver_held_in_order(OrderedOutput& out);
    void report_gap(std::uint32_t lost_packets, std::uint64_t missing_samples, OrderedOutput& out);
    void forget_skipped(std::uint32_t count);

    Limits limits_;
    Stats stats_;
    std::uint32_t next_ = 1;         // Sequence number of the next packet in order.
    std::uint32_t next_offset_ = 0;  // Its sample offset.
    bool begun_ = false;
    bool joining_ = false;  // Until it is known which packet is the first.
    Micros joined_{0};      // When the first of them came.
    int rate_ = 0;
    std::optional<std::int64_t> last_time_;  // Send time of the packet delivered last.
    std::uint64_t last_in_order_ = 0;  // Arrival number of the last packet that came in order.
    Continuation continuation_;
    std::vector<Held> held_;        // In order. All are ahead of next_.
    std::bitset<HISTORY> history_;  // Bit n: whether packet n modulo HISTORY before next_ came.
};

}  // namespace qv::node
