#include "node/calls/call_side.h"

#include <algorithm>
#include <array>

#include "node/calls/call.h"

namespace qv::node {

namespace {

constexpr std::uint32_t HALF_RANGE = 0x80000000;

// Sequence numbers wrap.
bool is_before(std::uint32_t sequence_number, const SidePlace& place) {
    return sequence_number - place.sequence_number >= HALF_RANGE;
}

ReorderBuffer::Limits reorder_limits(const CallLimits& limits) {
    ReorderBuffer::Limits reorder = limits.reorder;
    reorder.gap_samples = limits.gap_samples(limits.sample_rate);
    return reorder;
}

}  // namespace

CallSide::CallSide(Call& call, Side which, const CallLimits& limits)
    : call_(call),
      which_(which),
      limits_(limits),
      buffer_(reorder_limits(limits)),
      sample_rate_(limits.sample_rate) {}

std::optional<Drop> CallSide::receive(const media::Packet& packet, Micros now) {
    if (!begun()) {
        begin(packet);
    } else if (*leg_ != packet.leg()) {
        return Drop::OTHER_LEG;
    }
    bytes_ += packet.sample_count * sizeof(std::int16_t);
    measure_rate(packet);
    call_.for_each_listener([&](CallListener& listener) { listener.data(call_, packet); });
    switch (put_in_order(packet, now)) {
        case ReorderBuffer::Verdict::DELIVERED:
        case ReorderBuffer::Verdict::HELD:
            note_newest(packet);
            break;
        case ReorderBuffer::Verdict::DUPLICATE:
            return Drop::DUPLICATE;
        case ReorderBuffer::Verdict::IMPLAUSIBLE:
            return Drop::IMPLAUSIBLE;
        case ReorderBuffer::Verdict::LATE:
            call_.for_each_listener(
                [&](CallListener& listener) { listener.late(call_, which_, packet); });
            return Drop::LATE;
    }
    return std::nullopt;
}

void CallSide::begin(const media::Packet& packet) {
    leg_ = packet.leg();
    newest_send_time_ = packet.send_time;
    find_place(packet);
    newest_end_ = buffer_.expected_offset();
    call_.for_each_listener([&](CallListener& listener) { listener.side_begun(call_, which_); });
    if (sample_rate_ != 0) {
        set_rate(sample_rate_);
    }
}

// A side that goes on begins where it was left. One whose beginning is within reach begins
// there. Otherwise this receiver came late to the call, and the side begins with the packet.
void CallSide::find_place(const media::Packet& packet) {
    if (left_at_.has_value() && !is_before(packet.sequence_number, *left_at_)) {
        joined_at_ = left_at_->sample_offset;
        buffer_.begin(left_at_->sequence_number, left_at_->sample_offset);
        return;
    }
    const std::uint64_t reach = limits_.gap_samples(limits_.sample_rate);
    if (packet.sample_offset <= reach && packet.sequence_number <= reach) {
        const auto& start = call_.start();
        buffer_.begin(1, 0, start.has_value() ? std::optional(start->send_time) : std::nullopt);
        return;
    }
    joined_at_ = packet.sample_offset;
    buffer_.begin(packet.sequence_number, packet.sample_offset);
}

std::optional<SidePlace> CallSide::place() const {
    if (!buffer_.begun()) {
        return left_at_;
    }
    return SidePlace{buffer_.expected_sequence_number(), buffer_.expected_offset()};
}

void CallSide::note_newest(const media::Packet& packet) {
    if (packet.send_time >= newest_send_time_) {
        newest_send_time_ = packet.send_time;
        newest_end_ = packet.sample_offset + packet.sample_count;
    }
}

std::uint64_t CallSide::position_at(std::int64_t send_time) const {
    // What is held, or missing before it.
    const std::uint32_t ahead = newest_end_ - buffer_.expected_offset();
    const std::uint64_t end = position() + (ahead < HALF_RANGE ? ahead : 0);
    if (send_time >= newest_send_time_) {
        return end;
    }
    // As floating point: forged times must not overflow.
    const double later_s =
        (static_cast<double>(newest_send_time_) - static_cast<double>(send_time)) / 1e6;
    const double later = later_s * sample_rate_;
    return later < static_cast<double>(end) ? end - static_cast<std::uint64_t>(later) : 0;
}

void CallSide::measure_rate(const media::Packet& packet) {
    if (sample_rate_ != 0) {
        return;
    }
    estimator_.add(packet.sample_offset, packet.sample_count, packet.send_time);
    if (const auto rate = estimator_.rate()) {
        buffer_.set_gap_limit(limits_.gap_samples(*rate));
        set_rate(*rate);
    }
}

void CallSide::decide_rate() {
    if (sample_rate_ != 0) {
        return;
    }
    const auto guess = estimator_.best_guess();
    const CallSide& other_side = call_.side(other(which_));
    const int usual = estimator_.rate_of_20_ms_frames().value_or(DEFAULT_SAMPLE_RATE);
    rate_assumed_ =
        !guess.has_value() && (other_side.sample_rate_ == 0 || other_side.rate_assumed_);
    set_rate(guess.value_or(other_side.sample_rate_ != 0 ? other_side.sample_rate_ : usual));
}

void CallSide::set_rate(int rate) {
    sample_rate_ = rate;
    buffer_.set_rate(rate);
    call_.for_each_listener([&](CallListener& listener) { listener.rate_decided(call_, which_); });
}

ReorderBuffer::Verdict CallSide::put_in_order(const media::Packet& packet, Micros now) {
    std::array<std::int16_t, media::MAX_AUDIO_SIZE / 2> samples;
    for (std::size_t i = 0; i < packet.sample_count; ++i) {
        samples[i] = static_cast<std::int16_t>(media::get_u16(packet.audio + 2 * i));
    }
    const AudioPacket audio{packet.sequence_number, packet.sample_offset, packet.sample_count,
                            samples.data(), packet.send_time};
    return buffer_.receive(audio, now, *this);
}

void CallSide::give_up_waiting(Micros now) {
    buffer_.advance(now, *this);
}

void CallSide::finish() {
    buffer_.finish(*this);
}

void CallSide::audio(const std::int16_t* samples, std::size_t count, std::int64_t send_time) {
    add_pause(send_time, count);
    level_.add(samples, count);
    // The buffer has counted these samples already.
    const Audio audio{samples, count, position() - count, send_time};
    call_.for_each_listener([&](CallListener& listener) { listener.audio(call_, which_, audio); });
}

void CallSide::gap(const Gap& gap) {
    pauses_.advance(gap.filled_samples);
    call_.for_each_listener([&](CallListener& listener) { listener.gap(call_, which_, gap); });
}

void CallSide::add_pause(std::int64_t send_time, std::size_t count) {
    const std::int64_t axis_begin = call_.axis_begin(send_time);
    // A side that begins late has no rate of its own yet.
    const int rate = sample_rate_ != 0 ? sample_rate_ : call_.side(other(which_)).sample_rate();
    const std::uint64_t samples =
        pauses_.pause_before(send_time, axis_begin, rate, longest_pause(rate));
    pauses_.advance(samples + count);
    if (samples == 0) {
        return;
    }
    // The buffer has counted what ends the pause already.
    const Pause pause{samples, position() - count};
    call_.for_each_listener([&](CallListener& listener) { listener.pause(call_, which_, pause); });
}

// The time that really passed explains any pause; forged send times explain a short one only.
double CallSide::longest_pause(int rate) const {
    if (rate == 0) {
        return 0;
    }
    const double lasted = seconds_of(call_.last_seen() - call_.first_seen());
    const double placed = static_cast<double>(pauses_.position()) / rate;
    return std::max(limits_.max_silence_s, lasted - placed + limits_.max_silence_s);
}

}  // namespace qv::node
