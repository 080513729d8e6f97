#include "node/calls/call.h"

#include <algorithm>
#include <utility>

#include "tools/address.h"

namespace qv::node {

namespace {

// An implausible terminate packet may overtake packets by this much. Packets that come later
// refute it.
constexpr Micros STRAGGLING{300'000};
// If nothing comes for this long after an implausible terminate packet, the call has ended.
constexpr Micros QUIET{1'000'000};
// How long outputs may still work at the end of a call.
constexpr Micros LONGEST_WORK{2'000'000};

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
    hearers_ = listeners_;
}

std::optional<Drop> Call::receive(const media::Packet& packet, const Arrival& arrival) {
    if (!belongs_to(arrival.source)) {
        ++foreign_packets_;
        for_each_listener([&](CallListener& listener) { listener.foreign(*this, arrival.source); });
        return Drop::OTHER_ADDRESS;
    }
    if (packet.call_key != call_key_) {
        return Drop::OTHER_CALL_KEY;
    }
    if (packet.type == media::PacketType::START && start_.has_value()) {
        return Drop::REPEATED_START;
    }
    last_seen_ = arrival.time;
    source_ = arrival.source;
    switch (packet.type) {
        case media::PacketType::START:
            clock_.note(packet.send_time, arrival.time);
            return on_start(packet);
        case media::PacketType::CONTROL:
            return on_control(packet, arrival.time);
        case media::PacketType::TERMINATE:
            return on_terminate(packet, arrival.time);
        case media::PacketType::DATA:
            break;
    }
    return on_data(packet, arrival.time);
}

bool Call::is_replaced_by(const media::Packet& packet, const Arrival& arrival) const {
    return packet.type == media::PacketType::START && packet.call_key == call_key_ &&
           start_.has_value() && start_->configured_clock != packet.configured_clock &&
           belongs_to(arrival.source);
}

// A module that was loaded again sends from another port, but from the same address.
bool Call::belongs_to(const sockaddr_in& source) const {
    return source.sin_addr.s_addr == source_.sin_addr.s_addr || limits_.any_source;
}

std::optional<Drop> Call::on_start(const media::Packet& packet) {
    started_late_ =
        side(Side::ORIGINATOR).begun() || side(Side::TERMINATOR).begun() || control_packets_ > 0;
    start_ = start_fields(packet);
    if (control_packets_ == 0) {
        features_ = packet.features;
    }
    for_each_listener([&](CallListener& listener) { listener.started(*this, packet); });
    run_features(packet.send_time);
    return std::nullopt;
}

std::optional<Drop> Call::on_data(const media::Packet& packet, Micros now) {
    clock_.note(packet.send_time, now);
    if (implausible_end_.has_value() && now - implausible_end_->came > STRAGGLING) {
        refuse_terminate(implausible_terminate());
        implausible_end_.reset();
    }
    return mutable_side(packet.terminator_side() ? Side::TERMINATOR : Side::ORIGINATOR)
        .receive(packet, now);
}

// A send time far ahead must not make later packets look old.
std::int64_t Call::credible(std::int64_t send_time, Micros now) const {
    return clock_.is_far_ahead(send_time, now) ? clock_.at(now) : send_time;
}

std::optional<Drop> Call::on_control(const media::Packet& packet, Micros now) {
    if (control_packets_ != 0 && packet.send_time <= control_time_) {
        return Drop::OLD_CONTROL;
    }
    clock_.begin(packet.send_time, now);
    ++control_packets_;
    control_time_ = credible(packet.send_time, now);
    media::merge_features(features_, packet.features);
    for_each_listener([&](CallListener& listener) { listener.features_changed(*this, packet); });
    run_features(packet.send_time);
    return std::nullopt;
}

void Call::run_features(std::int64_t send_time) {
    for (const Side which : BOTH_SIDES) {
        mutable_side(which).run_from(send_time, running_of(features_, which, limits_.services));
    }
}

std::optional<Drop> Call::on_terminate(const media::Packet& packet, Micros now) {
    if (ending()) {
        return Drop::AFTER_END;
    }
    if (!clock_.is_far_ahead(packet.send_time, now)) {
        terminate(packet, now);
    } else if (clock_.keeps_real_time() || implausible_end_.has_value()) {
        refuse_terminate(packet);
    } else {
        implausible_end_ = ImplausibleEnd{packet.send_time, packet.leg_word, now};
    }
    return std::nullopt;
}

void Call::terminate(const media::Packet& packet, Micros now) {
    ends_at_ = now + limits_.linger;
    terminate_time_ = credible(packet.send_time, now);
    for_each_listener([&](CallListener& listener) { listener.terminated(*this, packet); });
}

void Call::refuse_terminate(const media::Packet& packet) {
    for_each_listener([&](CallListener& listener) { listener.terminate_refused(*this, packet); });
}

media::Packet Call::implausible_terminate() const {
    media::Packet packet;
    packet.type = media::PacketType::TERMINATE;
    packet.leg_word = implausible_end_->leg_word;
    packet.call_key = call_key_;
    packet.call_uuid = uuid_.data();
    packet.send_time = implausible_end_->send_time;
    return packet;
}

void Call::accept_implausible_terminate(Micros now) {
    const media::Packet packet = implausible_terminate();
    implausible_end_.reset();
    ended_implausibly_ = true;
    terminate(packet, now);
}

void Call::tick(Micros now) {
    if (implausible_end_.has_value() && !ending() && now - last_seen_ >= QUIET) {
        accept_implausible_terminate(now);
    }
    for (CallSide& side : sides_) {
        side.give_up_waiting(now);
    }
    if (reason_to_end(now).has_value()) {
        wrap_up(now);
    } else {
        wrapped_up_.reset();
    }
    for_each_listener([&](CallListener& listener) { listener.tick(*this, now); });
}

void Call::wrap_up(Micros now) {
    if (wrapped_up_.has_value()) {
        return;
    }
    wrapped_up_ = now;
    for (CallSide& side : sides_) {
        side.finish();
    }
    for (CallSide& side : sides_) {
        if (side.begun()) {
            side.decide_rate();
        }
    }
    for_each_listener([&](CallListener& listener) { listener.wrapping_up(*this); });
}

bool Call::working() const {
    return std::any_of(listeners_.begin(), listeners_.end(),
                       [this](const CallListener* listener) { return listener->working(*this); });
}

std::optional<EndReason> Call::due(Micros now) const {
    const std::optional<EndReason> reason = reason_to_end(now);
    if (reason.has_value() && working() && now - wrapped_up_.value_or(now) < LONGEST_WORK) {
        return std::nullopt;
    }
    return reason;
}

std::optional<EndReason> Call::reason_to_end(Micros now) const {
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

void Call::close(EndReason reason) {
    wrapped_up_.reset();  // Packets may have come since.
    wrap_up(last_seen_);
    if (implausible_end_.has_value()) {
        refuse_terminate(implausible_terminate());
    }
    for_each_listener([&](CallListener& listener) { listener.closing(*this, reason); });
}

void Call::sum_up(EndReason reason) {
    for_each_listener([&](CallListener& listener) { listener.summing_up(*this, reason); });
}

bool Call::completing() const {
    return std::any_of(listeners_.begin(), listeners_.end(), [this](const CallListener* listener) {
        return listener->completing(*this);
    });
}

void Call::report_end(EndReason reason) {
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

void Call::report_activity(Side side, const Activity& activity) {
    for_each_listener([&](CallListener& listener) { listener.activity(*this, side, activity); });
}

void Call::report_sample(Side side, const FoundSample& sample) {
    for_each_listener([&](CallListener& listener) { listener.sample_found(*this, side, sample); });
}

void Call::report_skipped(Side side, std::uint64_t samples) {
    for_each_listener([&](CallListener& listener) { listener.skipped(*this, side, samples); });
}

void Call::report_failed_file(const FileReport& file) {
    failed_files_.push_back(file);
    for_each_listener([&](CallListener& listener) { listener.file_failed(*this, file); });
}

void Call::set_hearing(const CallListener& listener, bool hears) {
    const auto hears_now = [this](const CallListener* one) {
        return std::find(hearers_.begin(), hearers_.end(), one) != hearers_.end();
    };
    std::vector<CallListener*> hearers;
    for (CallListener* one : listeners_) {
        if (one == &listener ? hears : hears_now(one)) {
            hearers.push_back(one);
        }
    }
    hearers_.swap(hearers);
}

void Call::gather_waves() {
    for (CallSide& side : sides_) {
        side.gather_wave();
    }
}

int Call::decide_rate(Side which) {
    mutable_side(which).decide_rate();
    return side(which).sample_rate();
}

std::int64_t Call::axis_begin(Side which, std::int64_t send_time, std::uint64_t samples) {
    if (!axis_mark_.has_value()) {
        axis_mark_ = AxisMark{which, send_time, samples};
    }
    return *first_audio_time();
}

std::optional<std::int64_t> Call::first_audio_time() const {
    if (!axis_mark_.has_value()) {
        return std::nullopt;
    }
    if (axis_mark_->samples == 0) {
        return axis_mark_->send_time;
    }
    const double before = seconds_of(axis_mark_->samples, side(axis_mark_->side).likely_rate());
    // Computed as floating point, because forged times could overflow.
    return static_cast<std::int64_t>(static_cast<double>(axis_mark_->send_time) - before * 1e6);
}

bool Call::sides_may_be_apart() const {
    const auto& [one, another] = sides_;
    const bool joined = one.joined_at() != 0 || another.joined_at() != 0 ||
                        (axis_mark_.has_value() && axis_mark_->samples != 0);
    return joined && one.begun() && another.begun() &&
           (one.rate_assumed() || another.rate_assumed());
}

}  // namespace qv::node
