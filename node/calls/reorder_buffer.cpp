#include "node/calls/reorder_buffer.h"

#include <algorithm>
#include <iterator>

namespace qv::node {

namespace {

// How far a delayed sender may be ahead of the time since its previous packet.
constexpr double AHEAD_OF_TIME_S = 1;
// Used while the rate is unknown.
constexpr int HIGH_RATE = 48'000;

// Returns whether a packet with these numbers can follow a packet that ends there.
bool can_follow(std::uint32_t sequence_number, std::uint32_t sample_offset,
                std::uint32_t next_number, std::uint32_t next_offset) {
    const std::uint64_t missing_packets = sequence_number - next_number;
    const std::uint64_t missing_samples = sample_offset - next_offset;
    return missing_samples <= missing_packets * LARGEST_PACKET_SAMPLES;
}

}  // namespace

void ReorderBuffer::begin(std::uint32_t sequence_number, std::uint32_t sample_offset,
                          std::optional<std::int64_t> not_before) {
    last_time_ = not_before;
    next_ = sequence_number;
    next_offset_ = sample_offset;
    begun_ = true;
}

ReorderBuffer::Verdict ReorderBuffer::receive(const AudioPacket& packet, Micros now,
                                              OrderedOutput& out) {
    begun_ = true;
    ++stats_.packets;
    if (joining_) {
        return receive_joining(packet, now, out);
    }
    if (ahead_of_next(packet.sequence_number) >= HALF_RANGE) {
        return receive_past(packet, out);
    }
    if (!plausible(packet)) {
        return receive_implausible(packet, out);
    }
    continuation_.awaited = false;
    if (packet.sequence_number != next_) {
        return hold(packet, now, out);
    }
    if (!held_.empty()) {
        ++stats_.reordered;
    }
    last_in_order_ = stats_.packets;
    deliver(packet, out);
    deliver_held_in_order(out);
    return Verdict::DELIVERED;
}

ReorderBuffer::Verdict ReorderBuffer::receive_joining(const AudioPacket& packet, Micros now,
                                                      OrderedOutput& out) {
    if (held_.empty()) {
        joined_ = now;
        // Earlier packets may still come.
        next_ = packet.sequence_number - HISTORY;
    }
    if (ahead_of_next(packet.sequence_number) >= 2 * HISTORY) {
        return receive_implausible(packet, out);
    }
    const Verdict verdict = hold(packet, now, out);
    return joining_ ? verdict : Verdict::DELIVERED;
}

// Starts with the first of the packets that have come.
void ReorderBuffer::settle(OrderedOutput& out) {
    joining_ = false;
    while (held_.size() > 2 && first_held_refuted()) {
        drop_first_held();
    }
    next_ = held_.front().sequence_number;
    next_offset_ = held_.front().sample_offset;
    deliver_held_in_order(out);
}

void ReorderBuffer::advance(Micros now, OrderedOutput& out) {
    if (is_settling() && now - joined_ >= limits_.wait) {
        settle(out);
    }
    if (joining_) {
        return;
    }
    while (!held_.empty() && now - held_.front().arrived >= limits_.wait) {
        if (first_held_refuted()) {
            drop_first_held();
        } else if (first_held_implausible()) {
            return;
        } else {
            deliver_first_held(out);
        }
        deliver_held_in_order(out);
    }
}

void ReorderBuffer::finish(OrderedOutput& out) {
    if (is_settling()) {
        settle(out);
    }
    while (!held_.empty()) {
        release_first_held(out);
    }
}

// Delivers or drops it without waiting for a packet that confirms it.
void ReorderBuffer::release_first_held(OrderedOutput& out) {
    if (first_held_refuted() || first_held_implausible()) {
        drop_first_held();
    } else {
        deliver_first_held(out);
    }
}

void ReorderBuffer::drop_first_held() {
    ++stats_.implausible;
    held_.erase(held_.begin());
}

// Packets before the gap kept coming, or the send time leaves no time for what is missing; and no
// later packet has confirmed the first held one.
bool ReorderBuffer::first_held_implausible() const {
    const Held& first = held_.front();
    if (first.sequence_number == next_) {
        return false;
    }
    const std::uint32_t missing = first.sample_offset - next_offset_;
    const bool implausible = last_in_order_ > first.number || is_too_much(missing, first.send_time);
    return implausible && held_.size() < 2;
}

// The next two packets follow each other, but not this one.
bool ReorderBuffer::first_held_refuted() const {
    const auto follows = [](const Held& later, const Held& earlier) {
        return can_follow(
            later.sequence_number, later.sample_offset, earlier.sequence_number + 1,
            earlier.sample_offset + static_cast<std::uint32_t>(earlier.samples.size()));
    };
    return held_.size() > 1 && !follows(held_[1], held_[0]) &&
           (held_.size() == 2 || follows(held_[2], held_[1]));
}

// Returns whether this much audio cannot have been missed before a packet with that send time.
bool ReorderBuffer::is_too_much(std::uint64_t missing_samples, std::int64_t send_time) const {
    if (!last_time_.has_value()) {
        return false;
    }
    const double passed = seconds_between(*last_time_, send_time);
    return seconds_of(missing_samples, rate_ != 0 ? rate_ : HIGH_RATE) > passed + AHEAD_OF_TIME_S;
}

bool ReorderBuffer::plausible(const AudioPacket& packet) const {
    const std::uint64_t missing_packets = ahead_of_next(packet.sequence_number);
    const std::uint64_t missing_samples = packet.sample_offset - next_offset_;
    return can_follow(packet.sequence_number, packet.sample_offset, next_, next_offset_) &&
           missing_samples <= limits_.gap_samples && missing_packets <= limits_.gap_samples;
}

ReorderBuffer::Verdict ReorderBuffer::receive_past(const AudioPacket& packet, OrderedOutput& out) {
    const std::uint32_t back = next_ - packet.sequence_number;
    if (back > HISTORY) {
        return receive_implausible(packet, out);
    }
    const std::size_t bit = packet.sequence_number % HISTORY;
    if (history_.test(bit)) {
        ++stats_.duplicates;
        return Verdict::DUPLICATE;
    }
    history_.set(bit);
    ++stats_.late;
    return Verdict::LATE;
}

ReorderBuffer::Verdict ReorderBuffer::receive_implausible(const AudioPacket& packet,
                                                          OrderedOutput& out) {
    if (continuation_.awaited && continuation_.sequence_number == packet.sequence_number &&
        continuation_.sample_offset == packet.sample_offset) {
        continuation_.awaited = false;
        resync(packet, out);
        return Verdict::DELIVERED;
    }
    ++stats_.implausible;
    continuation_.awaited = true;
    continuation_.sequence_number = packet.sequence_number + 1;
    continuation_.sample_offset = packet.sample_offset + packet.sample_count;
    return Verdict::IMPLAUSIBLE;
}

ReorderBuffer::Verdict ReorderBuffer::hold(const AudioPacket& packet, Micros now,
                                           OrderedOutput& out) {
    const std::uint32_t ahead = ahead_of_next(packet.sequence_number);
    const auto place =
        std::lower_bound(held_.begin(), held_.end(), ahead, [this](const Held& held, auto value) {
            return ahead_of_next(held.sequence_number) < value;
        });
    if (place != held_.end() && place->sequence_number == packet.sequence_number) {
        if (!replaces(packet, place)) {
            ++stats_.duplicates;
            return Verdict::DUPLICATE;
        }
        ++stats_.implausible;
        place->sample_offset = packet.sample_offset;
        place->send_time = packet.send_time;
        place->samples.assign(packet.samples, packet.samples + packet.sample_count);
        return Verdict::HELD;
    }
    if (place != held_.end()) {
        ++stats_.reordered;
    }
    held_.insert(place, Held{packet.sequence_number,
                             packet.sample_offset,
                             packet.send_time,
                             now,
                             stats_.packets,
                             {packet.samples, packet.samples + packet.sample_count}});
    if (joining_ && held_.size() > limits_.packets) {
        settle(out);
    }
    while (held_.size() > limits_.packets) {
        release_first_held(out);
        deliver_held_in_order(out);
    }
    return Verdict::HELD;
}

// Returns whether the packet continues the one held before `place`, while another one with the same
// sequence number does not.
bool ReorderBuffer::replaces(const AudioPacket& packet,
                             std::vector<Held>::const_iterator place) const {
    if (place == held_.begin() || packet.sample_offset == place->sample_offset) {
        return false;
    }
    const Held& before = *std::prev(place);
    return before.sequence_number + 1 == packet.sequence_number &&
           before.sample_offset + before.samples.size() == packet.sample_offset;
}

// Follows a sender that has jumped: forward after a long loss, or to any place after it restarted
// its counters.
void ReorderBuffer::resync(const AudioPacket& packet, OrderedOutput& out) {
    ++stats_.resyncs;
    if (joining_) {
        // The packets that came first did not belong to this stream.
        joining_ = false;
        stats_.implausible += held_.size();
        held_.clear();
        next_ = packet.sequence_number;
        next_offset_ = packet.sample_offset;
        deliver(packet, out);
        return;
    }
    finish(out);
    const std::uint32_t ahead = ahead_of_next(packet.sequence_number);
    const std::uint32_t missing = packet.sample_offset - next_offset_;
    const bool forward = ahead < HALF_RANGE && missing < HALF_RANGE;
    report_gap(forward ? ahead : 0, forward ? missing : 0, out);
    history_.reset();
    next_ = packet.sequence_number;
    next_offset_ = packet.sample_offset;
    deliver(packet, out);
}

// Delivers the next packet in order, or one behind a gap.
void ReorderBuffer::deliver(const AudioPacket& packet, OrderedOutput& out) {
    const std::uint32_t lost = ahead_of_next(packet.sequence_number);
    if (lost != 0) {
        report_gap(lost, packet.sample_offset - next_offset_, out);
        forget_skipped(lost);
    }
    history_.set(packet.sequence_number % HISTORY);
    next_ = packet.sequence_number + 1;
    next_offset_ = packet.sample_offset + packet.sample_count;
    last_time_ = packet.send_time;
    stats_.samples += packet.sample_count;
    out.audio(packet.samples, packet.sample_count, packet.send_time);
}

void ReorderBuffer::deliver_first_held(OrderedOutput& out) {
    const Held held = std::move(held_.front());
    held_.erase(held_.begin());
    const AudioPacket packet{held.sequence_number, held.sample_offset,
                             static_cast<std::uint16_t>(held.samples.size()), held.samples.data(),
                             held.send_time};
    // A packet that was plausible when it came may contradict what was delivered since.
    if (!plausible(packet)) {
        ++stats_.implausible;
        return;
    }
    deliver(packet, out);
}

void ReorderBuffer::deliver_held_in_order(OrderedOutput& out) {
    while (!held_.empty() && held_.front().sequence_number == next_) {
        deliver_first_held(out);
    }
}

void ReorderBuffer::report_gap(std::uint32_t lost_packets, std::uint64_t missing_samples,
                               OrderedOutput& out) {
    const std::uint64_t filled = std::min(missing_samples, limits_.gap_samples);
    const Gap gap{next_, lost_packets, next_offset_, missing_samples, filled, position()};
    ++stats_.gaps;
    stats_.skipped += lost_packets;
    stats_.silence += filled;
    stats_.unfilled += missing_samples - filled;
    out.gap(gap);
}

// Records in the history that the packets from next_ on have not come.
void ReorderBuffer::forget_skipped(std::uint32_t count) {
    const std::uint32_t bits = std::min(count, HISTORY);
    for (std::uint32_t i = 0; i < bits; ++i) {
        history_.reset((next_ + count - 1 - i) % HISTORY);
    }
}

}  // namespace qv::node
