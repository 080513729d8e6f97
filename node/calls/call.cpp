#include "node/calls/call.h"

#include <utility>

#include "tools/address.h"

namespace qv::node {

namespace {

StartFields start_fields(const media::Packet& packet) {
    StartFields start;
    start.call_flags = packet.leg_word;
    start.send_time = packet.send_time;
    start.created_time = packet.created_time;
    start.configured_time = packet.configured_time;
    start.configured_clock = packet.configured_clock;
    start.rule_id = packet.rule_id;
    if (packet.report_node_given()) {
        start.report_node =
            tools::address_text(packet.report_node_address, packet.report_node_port);
    }
    start.features = packet.features;
    start.call_reference.assign(packet.call_reference, packet.call_reference_length);
    return start;
}

}  // namespace

Call::Call(const Uuid& uuid, std::uint64_t call_key, const Arrival& arrival,
           const CallLimits& limits, const std::vector<CallListener*>& outputs)
    : uuid_(uuid),
      call_key_(call_key),
      source_(arrival.source),
      limits_(limits),
      first_seen_(arrival.time),
      last_seen_(arrival.time),
      sides_{CallSide(*this, Side::ORIGINATOR, limits), CallSide(*this, Side::TERMINATOR, limits)} {
    for (CallListener* output : outputs) {
        std::unique_ptr<CallListener> own = output->begin_call(*this);
        listeners_.push_back(own != nullptr ? own.get() : output);
        if (own != nullptr) {
            own_listeners_.push_back(std::move(own));
        }
    }
}

std::optional<Drop> Call::receive(const media::Packet& packet, const Arrival& arrival) {
    if (packet.call_key != call_key_) {
        return Drop::OTHER_CALL_KEY;
    }
    if (packet.type == media::PacketType::START && start_.has_value()) {
        return Drop::REPEATED_START;
    }
    last_seen_ = arrival.time;
    switch (packet.type) {
        case media::PacketType::START:
            return on_start(packet);
        case media::PacketType::CONTROL:
            return on_control(packet);
        case media::PacketType::TERMINATE:
            return on_terminate(packet, arrival.time);
        case media::PacketType::DATA:
            break;
    }
    return mutable_side(packet.terminator_side() ? Side::TERMINATOR : Side::ORIGINATOR)
        .receive(packet, arrival.time);
}

bool Call::is_replaced_by(const media::Packet& packet) const {
    return packet.type == media::PacketType::START && packet.call_key == call_key_ &&
           start_.has_value() && start_->configured_clock != packet.configured_clock;
}

std::optional<Drop> Call::on_start(const media::Packet& packet) {
    started_late_ =
        side(Side::ORIGINATOR).begun() || side(Side::TERMINATOR).begun() || control_packets_ > 0;
    start_ = start_fields(packet);
    if (control_packets_ == 0) {
        features_ = packet.features;
    }
    for_each_listener([&](CallListener& listener) { listener.started(*this, packet); });
    return std::nullopt;
}

std::optional<Drop> Call::on_control(const media::Packet& packet) {
    if (control_packets_ != 0 && packet.send_time <= control_time_) {
        return Drop::OLD_CONTROL;
    }
    ++control_packets_;
    control_time_ = packet.send_time;
    media::merge_features(features_, packet.features);
    for_each_listener([&](CallListener& listener) { listener.features_changed(*this, packet); });
    return std::nullopt;
}

std::optional<Drop> Call::on_terminate(const media::Packet& packet, Micros now) {
    if (ending()) {
        return Drop::AFTER_END;
    }
    ends_at_ = now + limits_.linger;
    terminate_time_ = packet.send_time;
    for_each_listener([&](CallListener& listener) { listener.terminated(*this, packet); });
    return std::nullopt;
}

void Call::tick(Micros now) {
    for (CallSide& side : sides_) {
        side.give_up_waiting(now);
    }
    for_each_listener([&](CallListener& listener) { listener.tick(*this, now); });
}

std::optional<EndReason> Call::due(Micros now) const {
    if (ends_at_.has_value() && now >= *ends_at_) {
        return EndReason::TERMINATED;
    }
    if (now - last_seen_ >= limits_.idle) {
        return EndReason::TIMED_OUT;
    }
    if (now - first_seen_ >= limits_.max_age) {
        return EndReason::TOO_OLD;
    }
    return std::nullopt;
}

void Call::end(EndReason reason) {
    for (CallSide& side : sides_) {
        side.finish();
    }
    for (CallSide& side : sides_) {
        if (side.begun()) {
            side.decide_rate();
        }
    }
    for_each_listener([&](CallListener& listener) { listener.ended(*this, reason); });
}

void Call::continue_from(const SidePlaces& places) {
    for (const Side which : BOTH_SIDES) {
        mutable_side(which).continue_from(places[index_of(which)]);
    }
}

SidePlaces Call::places() const {
    return {side(Side::ORIGINATOR).place(), side(Side::TERMINATOR).place()};
}

void Call::report_failed_file(const FileReport& file) {
    failed_files_.push_back(file);
    for_each_listener([&](CallListener& listener) { listener.file_failed(*this, file); });
}

int Call::decide_rate(Side which) {
    mutable_side(which).decide_rate();
    return side(which).sample_rate();
}

std::int64_t Call::axis_begin(std::int64_t send_time) {
    if (!first_audio_time_.has_value()) {
        first_audio_time_ = send_time;
    }
    return *first_audio_time_;
}

}  // namespace qv::node
