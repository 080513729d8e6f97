#include "node/analysis/analyser.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "node/calls/call.h"
#include "node/calls/pause_map.h"

namespace qv::node {

namespace {

using analysis::Noticed;
using analysis::Wanted;

// The most audio that may wait for the sample rate of its side: two seconds at the highest rate.
constexpr std::size_t MOST_HELD_OF_SIDE = 96'000;

// Time between two reports of the same side.
constexpr Micros SKIPS_REPORTED{1'000'000};

Wanted wanted_of(Running running) {
    return {running.activity, running.detection};
}

}  // namespace

// One side of one call, between the call and the worker.
//
// The worker's positions include the sender's pauses, so that activity ends in a pause.
class Analyser::AnalysedSide {
  public:
    AnalysedSide(Analyser& analyser, Call& call, Side which)
        : analyser_(analyser), call_(call), which_(which) {}
    AnalysedSide(const AnalysedSide&) = delete;
    AnalysedSide& operator=(const AnalysedSide&) = delete;
    ~AnalysedSide() {
        count_running({});
        drop_held();
        if (number_ != 0) {
            finish();
            analyser_.sides_.erase(number_);
        }
    }

    void begin() { count_running(running()); }

    void change(std::uint64_t position) {
        count_running(running());
        if (number_ != 0 || running().analysis()) {
            add({wanted_of(running()), placed(position), {}});
        }
    }

    void audio(const Audio& audio) {
        if (running().analysis()) {
            add({wanted_of(running()), placed(audio.position), {audio.samples, audio.count}});
        }
    }

    void pause(const Pause& pause) { pauses_.add(pause); }

    void rate_decided() {
        for (const Held& held : std::exchange(held_, {})) {
            send({held.wanted, held.position, {held.samples.data(), held.samples.size()}});
            analyser_.held_ -= held.samples.size();
        }
        held_samples_ = 0;
    }

    void tick(Micros now) {
        if (switch_refused_) {
            const std::uint64_t position = placed(call_.side(which_).position());
            send({wanted_of(running()), position, {}});
        }
        if (skipped_ != 0 && now - skips_reported_ >= SKIPS_REPORTED) {
            skips_reported_ = now;
            report_skips();
        }
    }

    // No more audio comes for now.
    void finish() {
        if (number_ != 0 && !finishing_) {
            finishing_ = true;
            analyser_.worker_.finish(number_);
        }
    }

    void report_skips() {
        if (skipped_ != 0) {
            call_.report_skipped(which_, std::exchange(skipped_, 0));
        }
    }

    bool working() const { return finishing_; }

    void noticed(const Noticed& noticed) {
        switch (noticed.kind) {
            case Noticed::Kind::FINISHED:
                finishing_ = false;
                return;
            case Noticed::Kind::SAMPLE:
                analyser_.figures_.count_found(noticed.name, 1);
                call_.report_sample(which_, {noticed.name, side_position(noticed.position),
                                             heard_of(noticed), noticed.score});
                return;
            case Noticed::Kind::ACTIVE:
            case Noticed::Kind::INACTIVE:
                break;
        }
        const bool active = noticed.kind == Noticed::Kind::ACTIVE;
        analyser_.figures_.onsets += active ? 1 : 0;
        call_.report_activity(which_,
                              {active, static_cast<std::uint64_t>(side_position(noticed.position)),
                               heard_of(noticed)});
    }

  private:
    struct Samples {
        const std::int16_t* data = nullptr;
        std::size_t count = 0;
    };
    struct Piece {
        Wanted wanted;
        std::uint64_t position;
        Samples samples;
    };
    struct Held {
        Wanted wanted;
        std::uint64_t position;
        std::vector<std::int16_t> samples;
    };

    Running running() const { return call_.side(which_).running(); }
    std::uint64_t placed(std::uint64_t position) const { return pauses_.place_of(position); }

    std::uint64_t heard_of(const Noticed& noticed) const {
        return static_cast<std::uint64_t>(side_position(static_cast<std::int64_t>(noticed.heard)));
    }

    // Returns the side's position for a place on the worker's axis.
    std::int64_t side_position(std::int64_t placed) const { return pauses_.position_at(placed); }

    void add(const Piece& piece) {
        if (call_.side(which_).sample_rate() != 0) {
            send(piece);
        } else {
            hold(piece);
        }
    }

    void hold(const Piece& piece) {
        const std::size_t count = piece.samples.count;
        if (held_samples_ + count > MOST_HELD_OF_SIDE ||
            analyser_.held_ + count > analyser_.most_held_) {
            skip(count);
            return;
        }
        held_samples_ += count;
        analyser_.held_ += count;
        const bool goes_on = !held_.empty() && held_.back().wanted == piece.wanted &&
                             held_.back().position + held_.back().samples.size() == piece.position;
        if (!goes_on) {
            held_.push_back({piece.wanted, piece.position, {}});
        }
        std::vector<std::int16_t>& into = held_.back().samples;
        into.insert(into.end(), piece.samples.data, piece.samples.data + count);
    }

    void drop_held() {
        analyser_.held_ -= held_samples_;
        held_samples_ = 0;
        held_.clear();
    }

    void send(const Piece& piece) {
        const int rate = call_.side(which_).sample_rate();
        if (number_ == 0) {
            number_ = analyser_.next_side_++;
            analyser_.sides_.emplace(number_, this);
        }
        finishing_ = false;
        const auto add = [&] {
            return analyser_.worker_.add(number_, rate, piece.wanted, piece.position,
                                         piece.samples.data, piece.samples.count);
        };
        const bool can_analyse = analysis::Worker::can_analyse(rate);
        bool taken = can_analyse && add();
        if (can_analyse && !taken && analyser_.pace_ == Pace::PATIENT) {
            analyser_.worker_.drain();
            taken = add();
        }
        switch_refused_ = !taken && piece.samples.count == 0;
        if (!taken) {
            skip(piece.samples.count);
        }
    }

    void skip(std::size_t samples) {
        skipped_ += samples;
        analyser_.figures_.skipped += samples;
    }

    void count_running(Running now) {
        Figures& figures = analyser_.figures_;
        const auto count = [](std::size_t& sides, bool before, bool after) {
            sides = sides + (after ? 1 : 0) - (before ? 1 : 0);
        };
        count(figures.activity_sides, counted_.activity, now.activity);
        count(figures.detection_sides, counted_.detection, now.detection);
        count(figures.recorded_sides, counted_.recording, now.recording);
        counted_ = now;
    }

    Analyser& analyser_;
    Call& call_;
    const Side which_;
    // The worker's number for this side. 0 before the worker has received anything.
    std::uint64_t number_ = 0;
    Running counted_;
    PauseMap pauses_;
    std::vector<Held> held_;  // Audio that waits until the rate is known.
    std::size_t held_samples_ = 0;
    std::uint64_t skipped_ = 0;  // Samples left out since the latest report.
    Micros skips_reported_{0};
    bool switch_refused_ = false;
    bool finishing_ = false;
};

class Analyser::AnalysedCall : public CallListener {
  public:
    AnalysedCall(Analyser& analyser, Call& call)
        : analyser_(analyser),
          sides_{AnalysedSide(analyser, call, Side::ORIGINATOR),
                 AnalysedSide(analyser, call, Side::TERMINATOR)} {}

    void side_begun(const Call& /*call*/, Side side) override { of(side).begin(); }
    void rate_decided(const Call& /*call*/, Side side) override { of(side).rate_decided(); }
    void running_changed(const Call& call, Side side, std::uint64_t position) override {
        if (call.side(side).begun()) {
            of(side).change(position);
        }
    }
    void audio(const Call& /*call*/, Side side, const Audio& audio) override {
        of(side).audio(audio);
    }
    void pause(const Call& /*call*/, Side side, const Pause& pause) override {
        of(side).pause(pause);
    }

    void tick(const Call& /*call*/, Micros now) override {
        analyser_.report_noticed();
        for (AnalysedSide& side : sides_) {
            side.tick(now);
        }
    }

    void wrapping_up(const Call& /*call*/) override {
        for (AnalysedSide& side : sides_) {
            side.finish();
        }
        if (analyser_.pace_ == Pace::PATIENT) {
            analyser_.worker_.drain();
            analyser_.report_noticed();
        }
    }

    bool working(const Call& /*call*/) const override {
        return std::any_of(sides_.begin(), sides_.end(),
                           [](const AnalysedSide& side) { return side.working(); });
    }

    void summing_up(const Call& call, EndReason reason) override {
        // The receiver ends, so waiting here delays no packets.
        if (reason == EndReason::SHUTDOWN && working(call)) {
            analyser_.worker_.drain();
        }
        analyser_.report_noticed();
    }

    void ended(const Call& /*call*/, EndReason /*reason*/) override {
        analyser_.report_noticed();
        for (AnalysedSide& side : sides_) {
            side.report_skips();
        }
    }

  private:
    AnalysedSide& of(Side side) { return sides_[index_of(side)]; }

    Analyser& analyser_;
    std::array<AnalysedSide, SIDE_COUNT> sides_;
};

Analyser::Analyser(const analysis::Worker::Settings& settings, Pace pace, std::size_t most_held)
    : pace_(pace), most_held_(most_held), worker_(settings) {
    figures_.samples = settings.samples != nullptr ? settings.samples->size() : 0;
}

Analyser::~Analyser() = default;

std::unique_ptr<CallListener> Analyser::begin_call(Call& call) {
    return std::make_unique<AnalysedCall>(*this, call);
}

void Analyser::update() {
    worker_.send();
    report_noticed();
}

void Analyser::set_samples(std::shared_ptr<const analysis::SampleIndex> samples) {
    figures_.samples = samples->size();
    worker_.set_samples(std::move(samples));
}

void Analyser::report_noticed() {
    for (const Noticed& each : worker_.take()) {
        const auto side = sides_.find(each.side);
        if (side != sides_.end()) {
            side->second->noticed(each);
        }
    }
}

void Analyser::Figures::count_found(const std::string& name, std::uint64_t occurrences) {
    const bool own_name = found.size() < MOST_COUNTED_NAMES || found.count(name) != 0;
    found[own_name ? name : OTHER_SAMPLES] += occurrences;
}

void Analyser::Figures::add(const Figures& others) {
    activity_sides += others.activity_sides;
    detection_sides += others.detection_sides;
    recorded_sides += others.recorded_sides;
    samples = std::max(samples, others.samples);
    onsets += others.onsets;
    skipped += others.skipped;
    for (const auto& [name, occurrences] : others.found) {
        count_found(name, occurrences);
    }
}

}  // namespace qv::node
