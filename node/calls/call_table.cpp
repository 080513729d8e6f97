#include "node/calls/call_table.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "node/report/text.h"

namespace qv::node {

namespace {

constexpr std::size_t MAX_REMEMBERED = 100'000;
constexpr int ASSUMED_RATE_FOR_LIMITS = 16'000;

Uuid uuid_of(const media::Packet& packet) {
    Uuid uuid;
    std::memcpy(uuid.data(), packet.call_uuid, uuid.size());
    return uuid;
}

StartFields start_fields(const media::Packet& packet) {
    StartFields start;
    start.call_flags = packet.leg_word;
    start.send_time = packet.send_time;
    start.created_time = packet.created_time;
    start.configured_time = packet.configured_time;
    start.configured_clock = packet.configured_clock;
    start.rule_id = packet.rule_id;
    if (packet.report_node_given()) {
        start.report_node = address_text(packet.report_node_address, packet.report_node_port);
    }
    start.features = packet.features;
    start.call_reference.assign(packet.call_reference, packet.call_reference_length);
    return start;
}

// Sequence numbers wrap.
bool is_before(std::uint32_t sequence_number, const SidePlace& place) {
    return sequence_number - place.sequence_number >= 0x80000000U;
}

// Hands what a reorder buffer delivers to the recording and to all listeners.
class Delivery : public OrderedOutput {
  public:
    Delivery(Call& call, Side side, const std::vector<CallListener*>& listeners, Totals& totals,
             double max_pause_s)
        : call_(call),
          side_(side),
          listeners_(listeners),
          totals_(totals),
          max_pause_s_(max_pause_s) {}

    void audio(const std::int16_t* samples, std::size_t count, std::int64_t send_time) override {
        add_pause(send_time, count);
        call_.side(side_).level.add(samples, count);
        call_.recording->audio(side_, samples, count);
        for (CallListener* listener : listeners_) {
            listener->audio(call_, side_, samples, count);
        }
    }

    void gap(const Gap& gap) override {
        ++totals_.gaps;
        totals_.lost_packets += gap.lost_packets;
        totals_.silence_samples += gap.filled_samples;
        call_.recording->silence(side_, gap.filled_samples);
        call_.side(side_).pauses.advance(gap.filled_samples);
        for (CallListener* listener : listeners_) {
            listener->gap(call_, side_, gap);
        }
    }

  private:
    void add_pause(std::int64_t send_time, std::size_t count) {
        if (!call_.first_audio_time.has_value()) {
            call_.first_audio_time = send_time;
        }
        CallSide& side = call_.side(side_);
        // A side that begins late has no rate of its own yet.
        const int rate =
            side.sample_rate != 0 ? side.sample_rate : call_.side(other(side_)).sample_rate;
        const std::uint64_t samples =
            side.pauses.pause_before(send_time, *call_.first_audio_time, rate, longest_pause(rate));
        side.pauses.advance(samples + count);
        if (samples == 0) {
            return;
        }
        call_.recording->pause(side_, samples);
        // The buffer has counted what ends the pause already.
        const Pause pause{samples, side.tracker.position() - count};
        for (CallListener* listener : listeners_) {
            listener->pause(call_, side_, pause);
        }
    }

    // The time that really passed explains any pause; forged send times only a short one.
    double longest_pause(int rate) const {
        const auto lasted =
            std::chrono::duration<double>(call_.last_seen - call_.first_seen).count();
        const auto placed = static_cast<double>(call_.side(side_).pauses.position());
        return rate == 0 ? 0 : std::max(max_pause_s_, lasted - placed / rate + max_pause_s_);
    }

    Call& call_;
    Side side_;
    const std::vector<CallListener*>& listeners_;
    Totals& totals_;
    double max_pause_s_;
};

}  // namespace

const char* describe(Drop reason) {
    switch (reason) {
        case Drop::TOO_MANY_CALLS:
            return "too many calls at once";
        case Drop::AFTER_END:
            return "call has ended";
        case Drop::OTHER_CALL_KEY:
            return "call key differs from the call's";
        case Drop::OTHER_LEG:
            return "call side is carried by the other leg";
        case Drop::REPEATED_START:
            return "repeated start packet";
        case Drop::OLD_CONTROL:
            return "control packet repeated or overtaken";
        case Drop::DUPLICATE:
            return "duplicate data packet";
        case Drop::LATE:
            return "data packet too late";
        case Drop::IMPLAUSIBLE:
            return "implausible sequence number or sample offset";
    }
    return "unknown reason";
}

CallTable::CallTable(const CallLimits& limits, RecordingFactory recordings,
                     std::vector<CallListener*> listeners)
    : limits_(limits),
      recordings_(std::move(recordings)),
      listeners_(std::move(listeners)),
      ended_(MAX_REMEMBERED, limits.remember_ended),
      left_behind_(MAX_REMEMBERED, limits.max_age) {
    limits_.side.gap_samples = gap_limit(limits.sample_rate);
}

CallTable::~CallTable() = default;

void CallTable::receive(const media::Packet& packet, Micros now) {
    ++totals_.packets[static_cast<std::size_t>(packet.type) -
                      static_cast<std::size_t>(media::PacketType::START)];
    Call* call = find_or_add(packet, now);
    if (call == nullptr) {
        return;
    }
    if (call->call_key != packet.call_key) {
        drop(Drop::OTHER_CALL_KEY);
        return;
    }
    if (packet.type == media::PacketType::START && call->start.has_value()) {
        if (call->start->configured_clock == packet.configured_clock) {
            drop(Drop::REPEATED_START);
            return;
        }
        call = replace(*call, packet, now);
    }
    use(*call, packet, now);
}

Call* CallTable::find_or_add(const media::Packet& packet, Micros now) {
    if (last_ != nullptr &&
        std::memcmp(last_->uuid.data(), packet.call_uuid, media::UUID_SIZE) == 0) {
        return last_;
    }
    const Uuid uuid = uuid_of(packet);
    const auto found = calls_.find(uuid);
    if (found != calls_.end()) {
        return last_ = found->second.get();
    }
    if (is_after_end(uuid, packet)) {
        drop(Drop::AFTER_END);
        return nullptr;
    }
    if (calls_.size() >= limits_.max_calls) {
        drop(Drop::TOO_MANY_CALLS);
        return nullptr;
    }
    return add(uuid, packet, now);
}

// Data that was sent after the terminate packet has overtaken the next start packet. The
// terminate packet itself may be overtaken by a control packet that was sent after it.
bool CallTable::is_after_end(const Uuid& uuid, const media::Packet& packet) const {
    switch (packet.type) {
        case media::PacketType::START:
            return false;
        case media::PacketType::TERMINATE:
            return true;
        case media::PacketType::CONTROL:
            return ended_.find(uuid) != nullptr;
        case media::PacketType::DATA:
            break;
    }
    const std::int64_t* const terminated_at = ended_.find(uuid);
    return terminated_at != nullptr && packet.send_time <= *terminated_at;
}

Call* CallTable::add(const Uuid& uuid, const media::Packet& packet, Micros now) {
    auto owned = std::make_unique<Call>(uuid, packet.call_key, limits_.side);
    Call* call = owned.get();
    call->first_seen = now;
    call->recording = recordings_(
        uuid, [this, call](Side side, bool last) { return decide_rate(*call, side, last); });
    for (CallSide& side : call->sides) {
        side.sample_rate = limits_.sample_rate;
    }
    take_up(*call, packet);
    calls_.emplace(uuid, std::move(owned));
    ++totals_.calls_begun;
    return last_ = call;
}

// Continues the sides of an earlier call that was not terminated, unless they start anew.
void CallTable::take_up(Call& call, const media::Packet& packet) {
    const SidePlaces* const places = left_behind_.find(call.uuid);
    if (places == nullptr) {
        return;
    }
    if (packet.type != media::PacketType::START) {
        for (const Side side : BOTH_SIDES) {
            call.side(side).left_at = (*places)[index_of(side)];
        }
    }
    left_behind_.erase(call.uuid);
}

// The same call starts anew, as when its media bug was closed and its terminate packet
// lost.
Call* CallTable::replace(Call& call, const media::Packet& packet, Micros now) {
    const Uuid uuid = call.uuid;
    end(call, call.state == CallState::ENDING ? EndReason::TERMINATED : EndReason::REPLACED, now);
    return add(uuid, packet, now);
}

void CallTable::use(Call& call, const media::Packet& packet, Micros now) {
    call.last_seen = now;
    switch (packet.type) {
        case media::PacketType::START:
            return on_start(call, packet);
        case media::PacketType::CONTROL:
            return on_control(call, packet);
        case media::PacketType::TERMINATE:
            return on_terminate(call, packet, now);
        case media::PacketType::DATA:
            return on_data(call, packet, now);
    }
}

void CallTable::on_start(Call& call, const media::Packet& packet) {
    call.started_late = call.side(Side::ORIGINATOR).leg.has_value() ||
                        call.side(Side::TERMINATOR).leg.has_value() || call.control_packets > 0;
    call.start = start_fields(packet);
    if (call.control_packets == 0) {
        call.features = packet.features;
    }
    for (CallListener* listener : listeners_) {
        listener->started(call, packet);
    }
}

void CallTable::on_control(Call& call, const media::Packet& packet) {
    if (call.control_packets != 0 && packet.send_time <= call.control_time) {
        drop(Drop::OLD_CONTROL);
        return;
    }
    ++call.control_packets;
    call.control_time = packet.send_time;
    media::merge_features(call.features, packet.features);
    for (CallListener* listener : listeners_) {
        listener->features_changed(call, packet);
    }
}

void CallTable::on_terminate(Call& call, const media::Packet& packet, Micros now) {
    if (call.state == CallState::ENDING) {
        drop(Drop::AFTER_END);
        return;
    }
    call.state = CallState::ENDING;
    call.terminate_time = packet.send_time;
    call.ends_at = now + limits_.linger;
    for (CallListener* listener : listeners_) {
        listener->terminated(call, packet);
    }
}

void CallTable::on_data(Call& call, const media::Packet& packet, Micros now) {
    const Side which = packet.terminator_side() ? Side::TERMINATOR : Side::ORIGINATOR;
    CallSide& side = call.side(which);
    if (!side.leg.has_value()) {
        begin_side(call, which, packet);
    } else if (*side.leg != packet.leg()) {
        drop(Drop::OTHER_LEG);
        return;
    }
    const std::size_t bytes = packet.sample_count * sizeof(std::int16_t);
    side.bytes += bytes;
    side.last_send_time = packet.send_time;
    totals_.audio_bytes += bytes;
    update_rate(side, packet);
    for (CallListener* listener : listeners_) {
        listener->data(call, packet);
    }

    std::array<std::int16_t, media::MAX_AUDIO_SIZE / 2> samples;
    for (std::size_t i = 0; i < packet.sample_count; ++i) {
        samples[i] = static_cast<std::int16_t>(media::get_u16(packet.audio + 2 * i));
    }
    Delivery delivery(call, which, listeners_, totals_, limits_.max_silence_s);
    const AudioPacket audio{packet.sequence_number, packet.sample_offset, packet.sample_count,
                            samples.data(), packet.send_time};
    switch (side.tracker.receive(audio, now, delivery)) {
        case ReorderBuffer::Verdict::DELIVERED:
        case ReorderBuffer::Verdict::HELD:
            break;
        case ReorderBuffer::Verdict::DUPLICATE:
            return drop(Drop::DUPLICATE);
        case ReorderBuffer::Verdict::IMPLAUSIBLE:
            return drop(Drop::IMPLAUSIBLE);
        case ReorderBuffer::Verdict::LATE:
            drop(Drop::LATE);
            for (CallListener* listener : listeners_) {
                listener->late(call, which, packet);
            }
    }
}

// A side that goes on begins where it was left. One whose beginning is within reach begins
// there; otherwise this receiver came late to the call and the side begins with the packet
// at hand.
void CallTable::begin_side(Call& call, Side which, const media::Packet& packet) {
    CallSide& side = call.side(which);
    side.leg = packet.leg();
    side.first_send_time = packet.send_time;
    if (side.left_at.has_value() && !is_before(packet.sequence_number, *side.left_at)) {
        side.joined_at = side.left_at->sample_offset;
        side.tracker.begin(side.left_at->sequence_number, side.left_at->sample_offset);
        return;
    }
    if (packet.sample_offset <= limits_.side.gap_samples &&
        packet.sequence_number <= limits_.side.gap_samples) {
        side.tracker.begin(1, 0);
        return;
    }
    side.joined_at = packet.sample_offset;
    side.tracker.begin(packet.sequence_number, packet.sample_offset);
}

void CallTable::update_rate(CallSide& side, const media::Packet& packet) {
    if (side.sample_rate != 0) {
        return;
    }
    side.rate.add(packet.sample_offset, packet.sample_count, packet.send_time);
    if (const auto rate = side.rate.rate()) {
        side.sample_rate = *rate;
        side.tracker.set_gap_limit(gap_limit(*rate));
    }
}

int CallTable::decide_rate(Call& call, Side which, bool last) const {
    CallSide& side = call.side(which);
    if (side.sample_rate == 0 && last) {
        const auto guess = side.rate.best_guess();
        const CallSide& others = call.side(other(which));
        side.rate_assumed = !guess.has_value() && (others.sample_rate == 0 || others.rate_assumed);
        const int usual = side.rate.rate_of_20_ms_frames().value_or(DEFAULT_SAMPLE_RATE);
        side.sample_rate = guess.value_or(others.sample_rate != 0 ? others.sample_rate : usual);
    }
    return side.sample_rate;
}

void CallTable::tick(Micros now) {
    for (auto& entry : calls_) {
        Call& call = *entry.second;
        for (const Side side : BOTH_SIDES) {
            Delivery delivery(call, side, listeners_, totals_, limits_.max_silence_s);
            call.side(side).tracker.advance(now, delivery);
        }
        report_file_errors(call);
    }
    end_due_calls(now);
    ended_.expire(now);
    left_behind_.expire(now);
}

void CallTable::shut_down() {
    while (!calls_.empty()) {
        Call& call = *calls_.begin()->second;
        end(call, call.state == CallState::ENDING ? EndReason::TERMINATED : EndReason::SHUTDOWN,
            call.last_seen);
    }
}

void CallTable::end_due_calls(Micros now) {
    std::vector<std::pair<Call*, EndReason>> due;
    for (auto& entry : calls_) {
        Call& call = *entry.second;
        if (call.state == CallState::ENDING && now >= call.ends_at) {
            due.emplace_back(&call, EndReason::TERMINATED);
        } else if (now - call.last_seen >= limits_.idle) {
            due.emplace_back(&call, EndReason::TIMED_OUT);
        } else if (now - call.first_seen >= limits_.max_age) {
            due.emplace_back(&call, EndReason::TOO_OLD);
        }
    }
    for (const auto& [call, reason] : due) {
        end(*call, reason, now);
    }
}

void CallTable::remember(const Call& call, EndReason reason, Micros now) {
    if (reason == EndReason::TERMINATED) {
        ended_.keep(call.uuid, call.terminate_time, now);
        return;
    }
    SidePlaces places;
    for (const Side side : BOTH_SIDES) {
        const ReorderBuffer& tracker = call.side(side).tracker;
        places[index_of(side)] = call.side(side).left_at;
        if (tracker.begun()) {
            places[index_of(side)] = {tracker.expected_sequence_number(),
                                      tracker.expected_offset()};
        }
    }
    left_behind_.keep(call.uuid, places, now);
}

void CallTable::report_file_errors(Call& call) {
    if (call.recording->failed_files() == call.failed_files.size()) {
        return;
    }
    for (const FileReport& file : call.recording->files()) {
        const auto same = [&file](const FileReport& told) { return told.path == file.path; };
        if (file.error.empty() ||
            std::any_of(call.failed_files.begin(), call.failed_files.end(), same)) {
            continue;
        }
        report_failed_file(call, file);
    }
}

void CallTable::report_failed_file(const Call& call, const FileReport& file) {
    report_failed_file(*calls_.at(call.uuid), file);
}

void CallTable::report_failed_file(Call& call, const FileReport& file) {
    call.failed_files.push_back(file);
    ++totals_.file_errors;
    for (CallListener* listener : listeners_) {
        listener->file_failed(call, file);
    }
}

void CallTable::end(Call& call, EndReason reason, Micros now) {
    for (const Side side : BOTH_SIDES) {
        Delivery delivery(call, side, listeners_, totals_, limits_.max_silence_s);
        call.side(side).tracker.finish(delivery);
        totals_.reordered += call.side(side).tracker.stats().reordered;
    }
    call.recording->finish();
    for (const Side side : BOTH_SIDES) {
        if (call.side(side).tracker.stats().packets != 0) {
            decide_rate(call, side, true);  // No file may have asked for it.
        }
    }
    report_file_errors(call);
    ++totals_.calls_ended;
    totals_.calls_not_terminated += reason == EndReason::TERMINATED ? 0 : 1;
    totals_.calls_without_start += call.start.has_value() ? 0 : 1;
    for (CallListener* listener : listeners_) {
        listener->ended(call, reason);
    }
    remember(call, reason, now);
    if (last_ == &call) {
        last_ = nullptr;
    }
    calls_.erase(Uuid(call.uuid));
}

std::uint64_t CallTable::gap_limit(int sample_rate) const {
    const int rate = sample_rate != 0 ? sample_rate : ASSUMED_RATE_FOR_LIMITS;
    return static_cast<std::uint64_t>(limits_.max_silence_s * rate);
}

}  // namespace qv::node
