#include "node/calls/rate_change_finder.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "quorvane/media_packet.h"

namespace qv::node {

namespace {

// Packets of one frame are sent together.
constexpr std::int64_t SHORTEST_FRAME_US = 5'000;
// A longer interval is a pause.
constexpr std::int64_t LONGEST_FRAME_US = 250'000;

// This many frames in a row determine the usual length.
constexpr unsigned FRAMES_TO_LEARN = 5;
// This many usual frames in a row end a doubt about the length or the duration.
constexpr unsigned USUAL_LENGTHS = 2;
constexpr unsigned USUAL_DURATIONS = 3;
// This many odd durations in a row cause a doubt.
constexpr int ODD_DURATIONS = 3;
constexpr double LONGER = 1.4;
constexpr double SHORTER = 0.7;

// The frames of a sender that catches up may look shorter for some time.
constexpr std::int64_t ENOUGH_DURATION_US = 3'000'000;
constexpr std::int64_t LONGEST_DURATION_DOUBT_US = 4'000'000;
constexpr std::int64_t PATIENCE_US = 30'000'000;

// If less was measured, no rate is guessed at the end.
constexpr Micros LEAST_MEASURED{200'000};

// Forged times must not overflow.
std::int64_t time_between(std::int64_t earlier, std::int64_t later) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(later) -
                                     static_cast<std::uint64_t>(earlier));
}

}  // namespace

double seconds_at(std::uint64_t position, const std::vector<RateChange>& changes, int latest_rate) {
    double seconds = 0;
    std::uint64_t changed_at = 0;
    for (const RateChange& change : changes) {
        if (position < change.position) {
            return seconds + seconds_of(position - changed_at, change.old_rate);
        }
        seconds += seconds_of(change.position - changed_at, change.old_rate);
        changed_at = change.position;
    }
    return seconds + seconds_of(position - changed_at, latest_rate);
}

RateChangeFinder::Finding RateChangeFinder::add(std::uint16_t sample_count, std::int64_t send_time,
                                                int rate) {
    bool odd = false;
    if (unfinished_ != 0 && time_between(last_time_, send_time) >= SHORTEST_FRAME_US) {
        odd = finish_frame();
    }
    if (unfinished_ == 0) {
        begin_frame(send_time, rate);
    }
    unfinished_ += sample_count;
    last_time_ = send_time;
    odd = is_too_long() || odd;
    // A full packet may be the first part of a split frame.
    if (sample_count != LARGEST_PACKET_SAMPLES) {
        odd = finish_frame() || odd;
    }
    if (!in_doubt()) {
        const bool odd_durations = std::abs(odd_durations_) >= ODD_DURATIONS && !patient_;
        if (!odd && !odd_durations) {
            return Finding::USUAL;
        }
        begin_doubt(odd ? Doubt::LENGTH : Doubt::DURATION, send_time);
    }
    estimator_.add(offset_, sample_count, send_time);
    offset_ += sample_count;
    ++held_;
    return weigh(send_time, rate) ? Finding::SETTLED : Finding::DOUBT;
}

void RateChangeFinder::gap(std::uint64_t samples) {
    offset_ += static_cast<std::uint32_t>(samples);
    unfinished_ = 0;
    after_gap_ = true;
    odd_durations_ = 0;
}

void RateChangeFinder::settle(int rate) {
    if (!in_doubt()) {
        return;
    }
    const bool measured = doubt_ == Doubt::LENGTH && estimator_.measured_span() >= LEAST_MEASURED;
    end_doubt(measured ? estimator_.best_guess() : std::nullopt, rate);
}

void RateChangeFinder::begin_frame(std::int64_t send_time, int rate) {
    if (!after_gap_ && rate != 0 && frame_ != 0) {
        count_duration(time_between(frame_time_, send_time), rate);
    }
    frame_time_ = send_time;
    patient_ = patient_ && time_between(send_time, patient_until_) > 0;
}

// Packets that a delayed sender sends together carry no information.
void RateChangeFinder::count_duration(std::int64_t duration_us, int rate) {
    const double share = static_cast<double>(duration_us) * rate / 1e6 / frame_;
    const bool tells = duration_us >= SHORTEST_FRAME_US && duration_us <= LONGEST_FRAME_US;
    if (tells && share > LONGER) {
        odd_durations_ = std::max(odd_durations_, 0) + 1;
    } else if (tells && share < SHORTER) {
        odd_durations_ = std::min(odd_durations_, 0) - 1;
    } else {
        odd_durations_ = 0;
    }
    usual_durations_ = odd_durations_ == 0 ? usual_durations_ + 1 : 0;
}

// Returns whether the frame has a length that is not usual for the side.
bool RateChangeFinder::finish_frame() {
    const std::uint32_t frame = std::exchange(unfinished_, 0);
    if (std::exchange(after_gap_, false)) {
        return false;
    }
    run_ = frame == frame_ ? run_ + 1 : 1;
    frame_ = frame;
    if (longest_known_ == 0) {
        if (run_ >= FRAMES_TO_LEARN) {
            learn(frame);
        }
        return false;
    }
    return !is_known(frame);
}

bool RateChangeFinder::is_too_long() const {
    return longest_known_ != 0 && !after_gap_ && unfinished_ > longest_known_;
}

bool RateChangeFinder::is_known(std::uint32_t frame) const {
    return std::find(known_.begin(), known_.end(), frame) != known_.end();
}

void RateChangeFinder::learn(std::uint32_t frame) {
    if (!is_known(frame)) {
        known_[next_known_] = frame;
        next_known_ = (next_known_ + 1) % known_.size();
        longest_known_ = *std::max_element(known_.begin(), known_.end());
    }
}

void RateChangeFinder::begin_doubt(Doubt doubt, std::int64_t send_time) {
    doubt_ = doubt;
    doubted_from_ = send_time;
    held_ = 0;
    usual_durations_ = 0;
    estimator_ = RateEstimator();
}

// Returns whether the doubt has ended.
bool RateChangeFinder::weigh(std::int64_t send_time, int rate) {
    const auto measured = estimator_.rate();
    const std::int64_t lasted = time_between(doubted_from_, send_time);
    if (doubt_ == Doubt::LENGTH) {
        if (run_ >= USUAL_LENGTHS && is_known(frame_) && unfinished_ == 0) {
            return end_doubt(std::nullopt, rate);
        }
        if (measured.has_value()) {
            return end_doubt(measured, rate);
        }
    } else {
        if (usual_durations_ >= USUAL_DURATIONS) {
            return end_doubt(std::nullopt, rate);
        }
        if (measured.has_value() && (*measured == rate || lasted >= ENOUGH_DURATION_US)) {
            return end_doubt(measured, rate);
        }
        if (lasted >= LONGEST_DURATION_DOUBT_US) {
            return end_doubt(std::nullopt, rate);
        }
    }
    return held_ >= MOST_HELD && end_doubt(std::nullopt, rate);
}

// Returns true.
bool RateChangeFinder::end_doubt(std::optional<int> found, int rate) {
    if (doubt_ == Doubt::DURATION) {
        patient_ = true;
        patient_until_ = time_between(-PATIENCE_US, last_time_);
    }
    if (found.has_value() && *found != rate) {
        known_ = {};
        longest_known_ = 0;
        patient_ = false;
    }
    doubt_ = Doubt::NONE;
    odd_durations_ = 0;
    found_ = found;
    if (run_ >= USUAL_LENGTHS) {
        learn(frame_);
    }
    return true;
}

}  // namespace qv::node
