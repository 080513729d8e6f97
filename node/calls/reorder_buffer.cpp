#include "node/calls/reorder_buffer.h"

#include <algorithm>

namespace qv::node {

namespace {

constexpr std::uint64_t MAX_PACKET_SAMPLES = media::MAX_AUDIO_SIZE / 2;
constexpr std::uint32_t HALF_RANGE = 0x80000000;

}  // namespace

void ReorderBuffer::begin(std::uint32_t sequence_number, std::uint32_t sample_offset) {
    next_ = sequence_number;
    next_offset_ = sample_offset;
    begun_ = true;
}

ReorderBuffer::Verdict ReorderBuffer::receive(const AudioPacket& packet, Micros now,
                                              OrderedOutput& out) {
    begun_ = true;
    ++stats_.packets;
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
    deliver(packet, out);
    deliver_held_in_order(out);
    return Verdict::DELIVERED;
}

void ReorderBuffer::advance(Micros now, OrderedOutput& out) {
    while (!held_.empty() && now - held_.front().arrived >= limits_.wait) {
        deliver_first_held(out);
        deliver_held_in_order(out);
    }
}

void ReorderBuffer::finish(OrderedOutput& out) {
    while (!held_.empty()) {
        deliver_first_held(out);
    }
}

bool ReorderBuffer::plausible(const AudioPacket& packet) const {
    const std::uint64_t missing_packets = ahead_of_next(packet.sequence_number);
    const std::uint64_t missing_samples = packet.sample_offset - next_offset_;
    return missing_samples <= missing_packets * MAX_PACKET_SAMPLES &&
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
        ++stats_.duplicates;
        return Verdict::DUPLICATE;
    }
    if (place != held_.end()) {
        ++stats_.reordered;
    }
    held_.insert(place, Held{packet.sequence_number,
                             packet.sample_offset,
                             packet.send_time,
                             now,
                             {packet.samples, packet.samples + packet.sample_count}});
    while (held_.size() > limits_.packets) {
        deliver_first_held(out);
        deliver_held_in_order(out);
    }
    return Verdict::HELD;
}

// Follows a sender that has jumped: forward over a long loss, or anywhere after it
// began to count anew.
void ReorderBuffer::resync(const AudioPacket& packet, OrderedOutput& out) {
    finish(out);
    ++stats_.resyncs;
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
    stats_.samples += packet.sample_count;
    out.audio(packet.samples, packet.sample_count, packet.send_time);
}

void ReorderBuffer::deliver_first_held(OrderedOutput& out) {
    const Held held = std::move(held_.front());
    held_.erase(held_.begin());
    const AudioPacket packet{held.sequence_number, held.sample_offset,
                             static_cast<std::uint16_t>(held.samples.size()), held.samples.data(),
                             held.send_time};
    // What was plausible when it came may contradict what was delivered since.
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

// The packets from next_ on have not come: makes their bits of the history say so.
void ReorderBuffer::forget_skipped(std::uint32_t count) {
    const std::uint32_t bits = std::min(count, HISTORY);
    for (std::uint32_t i = 0; i < bits; ++i) {
        history_.reset((next_ + count - 1 - i) % HISTORY);
    }
}

}  // namespace qv::node
