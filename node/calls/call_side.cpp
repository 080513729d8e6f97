#include "node/calls/call_side.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "node/calls/call.h"

namespace qv::node {

namespace {

// A lag that has not decreased for this long is a pause.
constexpr Micros STEADY{200'000};
// How much a lag decreases if the sender catches up. A smaller decrease is jitter.
constexpr double CATCHING_UP_S = 0.01;
// The longest that audio waits, in real time and in packets, until a pause is reported.
constexpr Micros LONGEST_DOUBT{1'000'000};
constexpr std::size_t MOST_WAITING = 250;
// If no further packets decide it, a doubt about the rate ends after this time on the node's clock.
constexpr Micros LONGEST_RATE_DOUBT{5'000'000};
// If a pause is longer than the time that has passed, this many packets confirm it: the sender is
// faster than real time. A pause of up to a day is accepted.
constexpr std::size_t ENOUGH_TO_CONFIRM = 5;
constexpr double MOST_PAUSE_S = 25 * 3600;

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
      running_(running_of({}, which, limits.services)),
      sample_rate_(limits.sample_rate) {}

std::optional<Drop> CallSide::receive(const media::Packet& packet, Micros now) {
    if (!begun()) {
        begin(packet);
    } else if (*leg_ != packet.leg()) {
        return Drop::OTHER_LEG;
    }
    bytes_ += packet.sample_count * sizeof(std::int16_t);
    measure_rate(packet);
    call_.for_each_hearer([&](CallListener& hearer) { hearer.data(call_, packet); });
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

// A side that continues an earlier call begins where it was left. A side whose beginning is within
// reach begins there. Otherwise the node joined the call late, and the side begins with the packet.
void CallSide::find_place(const media::Packet& packet) {
    if (left_at_.has_value() && !is_before(packet.sequence_number, *left_at_)) {
        joined_at_ = left_at_->sample_offset;
        buffer_.begin(left_at_->sequence_number, left_at_->sample_offset);
        mark_axis(packet, left_at_->sample_offset);
        return;
    }
    RateEstimator frames;
    frames.add(packet.sample_offset, packet.sample_count, packet.send_time);
    const int other_rate = call_.side(other(which_)).sample_rate();
    const int rate = sample_rate_ != 0 ? sample_rate_
                     : other_rate != 0 ? other_rate
                                       : frames.rate_of_20_ms_frames().value_or(0);
    buffer_.set_gap_limit(limits_.gap_samples(rate));
    if (is_joined_late(packet, rate)) {
        joining_ = true;
        buffer_.join();
        mark_axis(packet, packet.sample_offset);
        return;
    }
    const auto& start = call_.start();
    buffer_.begin(1, 0, start.has_value() ? std::optional(start->send_time) : std::nullopt);
    mark_axis(packet, 0);
}

// In a call that the node joins, the time axis begins with the side that comes first. The other
// side needs the axis to find its place. Otherwise the axis begins with the first audio, which is
// not forged.
void CallSide::mark_axis(const media::Packet& packet, std::uint32_t first_offset) {
    if (!call_.start().has_value()) {
        call_.axis_begin(which_, packet.send_time, packet.sample_offset - first_offset);
    }
}

// The packet is further in than the longest silence allows, or its side began before the part of
// the other side that has already been passed on.
bool CallSide::is_joined_late(const media::Packet& packet, int rate) const {
    const std::uint64_t reach = limits_.gap_samples(rate);
    if (packet.sample_offset > reach || packet.sequence_number > reach) {
        return true;
    }
    const auto axis = call_.first_audio_time();
    if (call_.start().has_value() || !axis.has_value() || packet.sequence_number <= 1) {
        return false;
    }
    const double on_axis = seconds_between(*axis, packet.send_time);
    return on_axis + seconds_of(PauseFinder::SHORTEST) < seconds_of(packet.sample_offset, rate);
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
    // Includes what is held, and what is missing before it.
    const std::uint32_t ahead = newest_end_ - buffer_.expected_offset();
    const std::uint64_t end = buffer_.position() + (ahead < HALF_RANGE ? ahead : 0);
    if (send_time >= newest_send_time_) {
        return end;
    }
    const double later = seconds_between(send_time, newest_send_time_) * sample_rate_;
    return later < static_cast<double>(end) ? end - static_cast<std::uint64_t>(later) : 0;
}

void CallSide::measure_rate(const media::Packet& packet) {
    if (sample_rate_ != 0 || rate_change_finder_.in_doubt()) {
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
    wave_.set_rate(rate);
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
    if (!held_.empty() && now - held_since_ >= LONGEST_RATE_DOUBT) {
        rate_change_finder_.settle(sample_rate_);
        settle_rate();
    }
    if (!waiting_.empty() && now - waiting_since_ >= LONGEST_DOUBT) {
        release_waiting(false);
    }
}

void CallSide::finish() {
    buffer_.finish(*this);
    rate_change_finder_.settle(sample_rate_);
    settle_rate();
    release_waiting(false);
}

void CallSide::audio(const std::int16_t* samples, std::size_t count, std::int64_t send_time) {
    if (joining_) {
        joining_ = false;
        joined_at_ = buffer_.expected_offset() - static_cast<std::uint32_t>(count);
    }
    // The buffer has counted these samples already.
    held_samples_ += count;
    const auto finding = look_for_rate_change(count, send_time);
    if (finding == RateChangeFinder::Finding::USUAL) {
        take(samples, count, send_time);
        return;
    }
    if (held_.empty()) {
        held_since_ = call_.last_seen();
    }
    held_.push_back({{samples, samples + count}, send_time, std::nullopt});
    if (finding == RateChangeFinder::Finding::SETTLED) {
        settle_rate();
    }
}

// A rate that the user has set does not change.
RateChangeFinder::Finding CallSide::look_for_rate_change(std::size_t count,
                                                         std::int64_t send_time) {
    if (limits_.sample_rate != 0 || rate_changes_.size() == MOST_RATE_CHANGES) {
        return RateChangeFinder::Finding::USUAL;
    }
    return rate_change_finder_.add(static_cast<std::uint16_t>(count), send_time, sample_rate_);
}

// Passes on what was held while the rate was in doubt.
void CallSide::settle_rate() {
    if (held_.empty()) {
        return;
    }
    const auto found = rate_change_finder_.found();
    if (found.has_value() && *found != sample_rate_) {
        change_rate(*found);
    }
    for (const Waiting& part : std::exchange(held_, {})) {
        if (part.gap.has_value()) {
            take(*part.gap);
        } else {
            take(part.samples.data(), part.samples.size(), part.send_time);
        }
    }
}

// The held audio has that rate.
void CallSide::change_rate(int rate) {
    release_waiting(false);
    if (sample_rate_ == 0) {
        // The rate of the audio before the change is not known yet, and only its packets can show
        // it.
        const auto former = estimator_.best_guess();
        set_rate(former.value_or(rate));
    }
    if (sample_rate_ == rate) {
        return;
    }
    const RateChange change{position(), sample_rate_, rate};
    rate_changes_.push_back(change);
    pauses_.change_rate(sample_rate_);
    sample_rate_ = rate;
    rate_assumed_ = false;
    buffer_.set_rate(rate);
    buffer_.set_gap_limit(limits_.gap_samples(rate));
    wave_.set_rate(rate);
    call_.for_each_listener(
        [&](CallListener& listener) { listener.rate_changed(call_, which_, change); });
}

int CallSide::sample_rate_at(std::uint64_t position) const {
    for (const RateChange& change : rate_changes_) {
        if (position < change.position) {
            return change.old_rate;
        }
    }
    return sample_rate_;
}

double CallSide::seconds_at(std::uint64_t position) const {
    return node::seconds_at(position, rate_changes_, sample_rate_);
}

double CallSide::seconds_from_begin(std::int64_t position) const {
    return position >= 0 ? seconds_at(static_cast<std::uint64_t>(position))
                         : -seconds_of(-static_cast<std::uint64_t>(position), first_sample_rate());
}

// Finds the place of the audio in time.
void CallSide::take(const std::int16_t* samples, std::size_t count, std::int64_t send_time) {
    held_samples_ -= count;
    waiting_samples_ += count;
    double lag = lag_s(send_time, count);
    if (!placed_) {
        place_first_audio(lag);
        lag = lag_s(send_time, count);
    }
    if (!waiting_.empty() && lag > least_lag_s_ + seconds_of(PauseFinder::SHORTEST)) {
        release_waiting(true);  // Another pause follows.
        lag = lag_s(send_time, count);
    }
    if (waiting_.empty() && lag < seconds_of(PauseFinder::SHORTEST)) {
        pass_on(samples, count, send_time);
    } else {
        wait(samples, count, send_time, lag);
    }
}

void CallSide::run_from(std::int64_t send_time, Running running) {
    std::uint64_t from = position_at(send_time);
    if (!changes_.empty()) {
        from = std::max(from, changes_.back().position);
    }
    if (changes_.size() == MOST_CHANGES) {
        changes_.back().running = running;
    } else {
        changes_.push_back({from, running});
    }
    change_at(position());
}

// Makes the changes that are due at that position. Returns where the next one is due.
std::uint64_t CallSide::change_at(std::uint64_t position) {
    while (!changes_.empty() && changes_.front().position <= position) {
        const Running running = changes_.front().running;
        changes_.erase(changes_.begin());
        if (running != running_) {
            running_ = running;
            call_.for_each_listener(
                [&](CallListener& listener) { listener.running_changed(call_, which_, position); });
        }
    }
    return changes_.empty() ? std::numeric_limits<std::uint64_t>::max() : changes_.front().position;
}

void CallSide::gap(const Gap& gap) {
    held_samples_ += gap.filled_samples;
    rate_change_finder_.gap(gap.missing_samples);
    if (rate_change_finder_.in_doubt()) {
        held_.push_back({{}, 0, gap});
    } else {
        take(gap);
    }
}

void CallSide::take(const Gap& gap) {
    held_samples_ -= gap.filled_samples;
    waiting_samples_ += gap.filled_samples;
    if (waiting_.empty()) {
        pass_on(gap);
    } else {
        waiting_.push_back({{}, 0, gap});
    }
}

void CallSide::pass_on(const std::int16_t* samples, std::size_t count, std::int64_t send_time) {
    do {
        const std::uint64_t begin = position();
        const std::uint64_t until = change_at(begin) - begin;
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(until, count));
        const Audio audio{samples, part, begin, send_time};
        waiting_samples_ -= part;
        pauses_.advance(part);
        measure(samples, part);
        call_.for_each_hearer([&](CallListener& hearer) { hearer.audio(call_, which_, audio); });
        samples += part;
        count -= part;
    } while (count > 0);
}

void CallSide::pass_on(const Gap& gap) {
    waiting_samples_ -= gap.filled_samples;
    pauses_.advance(gap.filled_samples);
    measure_silence(gap.filled_samples);
    call_.for_each_listener([&](CallListener& listener) { listener.gap(call_, which_, gap); });
}

// Measures the samples of each column of the waveform by themselves, so that they are looked at
// once.
void CallSide::measure(const std::int16_t* samples, std::size_t count) {
    if (!gathers_wave_) {
        level_.add(samples, count);
        return;
    }
    if (!wave_.has_rate()) {
        wave_.set_rate(sample_rate_ != 0 ? sample_rate_ : likely_rate());
    }
    while (count > 0) {
        const std::size_t part = std::min(count, wave_.room());
        wave_.add(part, level_.add(samples, part));
        if (wave_.is_full()) {
            report_wave(0);
        }
        samples += part;
        count -= part;
    }
}

void CallSide::measure_silence(std::uint64_t samples) {
    if (!gathers_wave_ || !wave_.has_rate()) {
        return;
    }
    const std::uint64_t silent = wave_.add_silence(samples);
    if (silent != 0 || wave_.is_full()) {
        report_wave(silent);
    }
}

void CallSide::report_wave(std::uint64_t silent) {
    const Wave wave = wave_.take(silent);
    if (wave.count != 0 || silent != 0) {
        call_.for_each_listener(
            [&](CallListener& listener) { listener.wave(call_, which_, wave); });
    }
}

// How late the audio is that the buffer delivered last. 0 while the rate is unknown.
double CallSide::lag_s(std::int64_t send_time, std::size_t count) {
    const std::uint64_t ahead = waiting_samples_ - count;
    const std::int64_t axis_begin = call_.axis_begin(which_, send_time, pauses_.position() + ahead);
    return pauses_.lag_s(send_time, axis_begin, pause_rate(), ahead);
}

// Both sides of a call that the node joins begin in the middle. A short lag between them is
// therefore a difference in time; a longer one is handled as a pause.
void CallSide::place_first_audio(double lag_s) {
    placed_ = true;
    const bool joined = joined_at_ != 0 && !left_at_.has_value();
    if (joined && lag_s > 0 && lag_s < seconds_of(PauseFinder::SHORTEST)) {
        add_pause(lag_s, lag_s);
    }
}

// Holds audio that comes after a pause or a delay, until later packets show which it was.
void CallSide::wait(const std::int16_t* samples, std::size_t count, std::int64_t send_time,
                    double lag_s) {
    if (waiting_.empty() || lag_s < least_lag_s_ - CATCHING_UP_S) {
        least_lag_s_ = lag_s;
        least_lag_time_ = send_time;
    }
    if (waiting_.empty()) {
        waiting_since_ = call_.last_seen();
    }
    waiting_.push_back({{samples, samples + count}, send_time, std::nullopt});
    const double steady = seconds_between(least_lag_time_, send_time);
    if (lag_s < seconds_of(PauseFinder::SHORTEST)) {
        least_lag_s_ = lag_s;
        release_waiting(false);  // The sender has caught up.
    } else if (steady >= seconds_of(STEADY) || waiting_.size() >= MOST_WAITING) {
        release_waiting(true);
    }
}

// Passes on the waiting audio, after a pause of the smallest lag seen. With `confirmed`, a pause of
// any length is accepted.
void CallSide::release_waiting(bool confirmed) {
    if (waiting_.empty()) {
        return;
    }
    std::vector<Waiting> waiting;
    waiting.swap(waiting_);
    if (least_lag_s_ >= seconds_of(PauseFinder::SHORTEST)) {
        const double longest = longest_pause(pause_rate());
        add_pause(least_lag_s_, confirmed && waiting.size() >= ENOUGH_TO_CONFIRM
                                    ? std::max(longest, MOST_PAUSE_S)
                                    : longest);
    }
    for (const Waiting& part : waiting) {
        if (part.gap.has_value()) {
            pass_on(*part.gap);
        } else {
            pass_on(part.samples.data(), part.samples.size(), part.send_time);
        }
    }
}

// At the position of the audio that is passed on next.
void CallSide::add_pause(double lag_s, double longest_s) {
    const std::uint64_t samples = pauses_.begin_pause(lag_s, pause_rate(), longest_s);
    const Pause pause{samples, position()};
    measure_silence(samples);
    call_.for_each_listener([&](CallListener& listener) { listener.pause(call_, which_, pause); });
}

// 0 if no rate is known. A side that begins late has no rate of its own yet.
int CallSide::pause_rate() const {
    if (sample_rate_ != 0) {
        return sample_rate_;
    }
    const int other_rate = call_.side(other(which_)).sample_rate();
    return other_rate != 0 || call_.start().has_value() ? other_rate : likely_rate();
}

int CallSide::likely_rate() const {
    if (!rate_changes_.empty()) {
        return first_sample_rate();
    }
    const int other_rate = call_.side(other(which_)).sample_rate_;
    if (sample_rate_ != 0 || other_rate != 0) {
        return sample_rate_ != 0 ? sample_rate_ : other_rate;
    }
    const auto guess = estimator_.best_guess();
    return guess.has_value() ? *guess
                             : estimator_.rate_of_20_ms_frames().value_or(DEFAULT_SAMPLE_RATE);
}

// The real time that passed explains any pause. Forged send times explain only a short one.
double CallSide::longest_pause(int rate) const {
    if (rate == 0) {
        return 0;
    }
    const double lasted = seconds_of(call_.last_seen() - call_.first_seen());
    const double placed = pauses_.position_s(rate);
    return std::max(limits_.max_silence_s, lasted - placed + limits_.max_silence_s);
}

}  // namespace qv::node
