#include "node/report/call_watch.h"

#include <array>

#include "node/calls/call.h"
#include "node/calls/level_meter.h"

namespace qv::node {

namespace {

constexpr std::size_t MOST_SAMPLES = 20;

double seconds_heard(const CallSide& side) {
    return side.sample_rate() != 0 ? side.seconds_at(side.position())
                                   : seconds_of(side.position(), side.likely_rate());
}

}  // namespace

class CallWatch::WatchedCall : public CallListener {
  public:
    WatchedCall(CallWatch& watch, const Call& call) : watch_(watch), call_(call) {
        watch_.calls_.insert(this);
    }
    WatchedCall(const WatchedCall&) = delete;
    WatchedCall& operator=(const WatchedCall&) = delete;
    ~WatchedCall() override { watch_.calls_.erase(this); }

    void audio(const Call& /*call*/, Side side, const Audio& audio) override {
        levels_[index_of(side)].add(audio.samples, audio.count);
    }

    void activity(const Call& /*call*/, Side side, const Activity& activity) override {
        active_[index_of(side)] = activity.active;
    }

    void running_changed(const Call& call, Side side, std::uint64_t /*position*/) override {
        active_[index_of(side)] = active_[index_of(side)] && call.side(side).running().activity;
    }

    void sample_found(const Call& call, Side side, const FoundSample& sample) override {
        samples_.push_back(
            {side, call.side(side).seconds_from_begin(sample.position), sample.name});
        if (samples_.size() > MOST_SAMPLES) {
            samples_.erase(samples_.begin());
        }
    }

    void file_failed(const Call& /*call*/, const FileReport& file) override {
        watch_.on_file_error_(file.path + ": " + file.error);
    }

    CallSnapshot take_snapshot() {
        CallSnapshot snapshot;
        snapshot.uuid = call_.uuid();
        snapshot.source = call_.source();
        snapshot.first_seen = call_.first_seen();
        snapshot.ending = call_.ending();
        snapshot.start = call_.start();
        snapshot.features = call_.features();
        snapshot.control_packets = call_.control_packets();
        snapshot.foreign_packets = call_.foreign_packets();
        for (const Side side : BOTH_SIDES) {
            snapshot.sides[index_of(side)] = take_side(side);
        }
        snapshot.samples = samples_;
        snapshot.failed_files = call_.failed_files();
        return snapshot;
    }

  private:
    SideSnapshot take_side(Side which) {
        const CallSide& side = call_.side(which);
        SideSnapshot snapshot;
        snapshot.begun = side.begun();
        snapshot.leg = side.leg().value_or(0);
        snapshot.sample_rate = side.sample_rate();
        snapshot.seconds = seconds_heard(side);
        snapshot.stats = side.stats();
        snapshot.pauses = side.pauses();
        snapshot.running = side.running();
        snapshot.level_db = levels_[index_of(which)].take_recent_db();
        snapshot.active = active_[index_of(which)];
        return snapshot;
    }

    CallWatch& watch_;
    const Call& call_;
    std::array<LevelMeter, SIDE_COUNT> levels_;
    std::array<bool, SIDE_COUNT> active_{};
    std::vector<CallSnapshot::Sample> samples_;  // The latest.
};

std::unique_ptr<CallListener> CallWatch::begin_call(Call& call) {
    return std::make_unique<WatchedCall>(*this, call);
}

std::vector<CallSnapshot> CallWatch::take_snapshots() {
    std::vector<CallSnapshot> snapshots;
    snapshots.reserve(calls_.size());
    for (WatchedCall* call : calls_) {
        snapshots.push_back(call->take_snapshot());
    }
    return snapshots;
}

}  // namespace qv::node
