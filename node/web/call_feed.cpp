#include "node/web/call_feed.h"

#include <algorithm>
#include <new>
#include <utility>

#include "node/calls/level_meter.h"
#include "node/calls/pause_map.h"
#include "node/report/text.h"
#include "node/web/call_pool.h"
#include "quorvane/media_packet.h"

namespace qv::node::web {

namespace {

// Of a call that nobody watches, figures are handed over at every so many ticks.
constexpr std::uint8_t UNWATCHED_TICKS = 19;
constexpr std::int64_t LONGEST_WAIT{10'000'000};  // Of audio before it is passed on, in us.

// A packet of a call that nobody listens to does not come here at all. The first cache line of this
// object has what each tick needs: with a thousand calls, each further line would have to be
// fetched from afar.
class alignas(64) FedCall : public CallListener {
  public:
    FedCall(CallBoard& board, Call& call, bool has_timeline)
        : wishes_(board.wishes()),
          seen_(wishes_.load(std::memory_order_relaxed) - 1),
          call_(call),
          board_(board),
          has_timeline_(has_timeline),
          record_(board.add(call.uuid(), wall_time(), call.first_seen())) {
        call.gather_waves();
    }

    static void* operator new(std::size_t size, std::align_val_t alignment) {
        return CallPool::instance().allocate(size, static_cast<std::size_t>(alignment));
    }
    static void operator delete(void* object, std::size_t size, std::align_val_t alignment) {
        CallPool::instance().deallocate(object, size, static_cast<std::size_t>(alignment));
    }

    void started(const Call& /*call*/, const media::Packet& packet) override {
        note_facts();
        mark_features(packet);
    }
    void features_changed(const Call& /*call*/, const media::Packet& packet) override {
        note_facts();
        mark_features(packet);
    }
    void terminated(const Call&, const media::Packet&) override { note_facts(); }
    void file_failed(const Call&, const FileReport&) override { note_facts(); }
    void side_begun(const Call&, Side) override { note_facts(); }

    void rate_decided(const Call&, Side) override { note_facts(); }
    void rate_changed(const Call&, Side side, const RateChange& change) override {
        Track& track = tracks_[index_of(side)];
        track.seconds_at_change = seconds_at(side, change.position);
        track.changed_at = track.pauses.place_of(change.position);
        note_facts();
    }

    void data(const Call& /*call*/, const media::Packet& packet) override {
        if (tapped_) {
            const Side side = packet.terminator_side() ? Side::TERMINATOR : Side::ORIGINATOR;
            tracks_[index_of(side)].newest_send_time = packet.send_time;
        }
    }

    void audio(const Call& /*call*/, Side side, const Audio& audio) override {
        if (wishes_.load(std::memory_order_relaxed) != seen_) {
            take_wishes();
        }
        if (tapped_) {
            push(side, audio);
        }
    }

    void wave(const Call& /*call*/, Side side, const Wave& wave) override {
        record_->wave(side).add(wave);
    }

    void gap(const Call& /*call*/, Side side, const Gap& gap) override {
        tracks_[index_of(side)].after_loss = true;
        mark({Mark::Kind::GAP, side, seconds_at(side, gap.position),
              seconds_at(side, gap.position + gap.filled_samples)});
    }

    void pause(const Call& /*call*/, Side side, const Pause& pause) override {
        Track& track = tracks_[index_of(side)];
        const double begin = seconds_at(side, pause.position);
        track.pauses.add(pause);
        track.paused += pause.samples;
        mark({Mark::Kind::PAUSE, side, begin, seconds_at(side, pause.position)});
    }

    void running_changed(const Call& call, Side side, std::uint64_t position) override {
        Track& track = tracks_[index_of(side)];
        note_facts();
        if (track.active && !call.side(side).running().activity) {
            track.active = false;
            mark({Mark::Kind::QUIET, side, seconds_at(side, position)});
        }
    }

    void activity(const Call& /*call*/, Side side, const Activity& activity) override {
        tracks_[index_of(side)].active = activity.active;
        note_facts();
        mark({activity.active ? Mark::Kind::ACTIVE : Mark::Kind::QUIET, side,
              seconds_at(side, activity.position)});
    }

    void sample_found(const Call& /*call*/, Side side, const FoundSample& sample) override {
        const auto position =
            static_cast<std::uint64_t>(std::max<std::int64_t>(sample.position, 0));
        mark({Mark::Kind::SAMPLE, side, seconds_at(side, position), 0, sample.name});
    }

    void tick(const Call& /*call*/, Micros /*now*/) override {
        if (wishes_.load(std::memory_order_relaxed) != seen_) {
            take_wishes();
        }
        if (hears_ != tapped_) {
            call_.set_hearing(*this, tapped_);
            hears_ = tapped_;
        }
        if (urgent_ || watched_ || --ticks_left_ == 0) {
            publish();
        }
    }

    void ended(const Call& call, EndReason reason) override {
        record_->set_over();
        auto finished = std::make_shared<FinishedCall>();
        finished->id = record_->id();
        finished->uuid = call.uuid();
        finished->began = record_->began();
        finished->ended = wall_time();
        finished->reason = reason;
        finished->figures = figures();
        finished->facts = facts();
        finished->file_stem = call.file_stem();
        finished->has_timeline = has_timeline_;
        finished->files = call.files();
        finished->sidecar = call.sidecar();
        board_.finish(std::move(finished));
    }

  private:
    struct Track {
        bool active = false;
        bool after_loss = false;
        std::int64_t newest_send_time = 0;
        std::uint64_t paused = 0;  // Samples of all pauses.
        PauseMap pauses;
        std::uint64_t changed_at = 0;  // Place of the latest change of the rate,
        double seconds_at_change = 0;  // also in seconds.
    };

    static int rate_of(const CallSide& side) {
        return side.sample_rate() != 0 ? side.sample_rate() : side.likely_rate();
    }

    // On the axis of the call.
    double seconds_at(Side side, std::uint64_t position) const {
        const Track& track = tracks_[index_of(side)];
        const std::uint64_t place = track.pauses.place_of(position);
        const std::uint64_t since = place - std::min(place, track.changed_at);
        return track.seconds_at_change + seconds_of(since, rate_of(call_.side(side)));
    }

    void note_facts() {
        facts_changed_ = true;
        urgent_ = true;
    }

    // If a reader holds the lock, it is tried again at the next tick, or with the next packet
    // of a call to which somebody listens.
    void take_wishes() {
        const std::uint32_t wishes = wishes_.load(std::memory_order_relaxed);
        if (!record_->try_take_taps(taps_)) {
            return;
        }
        seen_ = wishes;
        watched_ = record_->watched();
        for (Track& track : tracks_) {
            track.after_loss = track.after_loss && tapped_;
        }
        tapped_ = !taps_[0].empty() || !taps_[1].empty();
    }

    void mark(Mark mark) {
        urgent_ = true;
        if (marks_.size() < CallRecord::MOST_MARKS) {
            marks_.push_back(std::move(mark));
        }
    }

    void mark_features(const media::Packet& packet) {
        const Side side =
            call_.side(Side::ORIGINATOR).begun() ? Side::ORIGINATOR : Side::TERMINATOR;
        const double begin = seconds_at(side, call_.side(side).position_at(packet.send_time));
        mark({Mark::Kind::FEATURES, side, call_.side(side).begun() ? begin : 0, 0,
              features_text(call_.features())});
    }

    void push(Side side, const Audio& audio) {
        Track& track = tracks_[index_of(side)];
        AudioTap::Head head;
        head.place = audio.position + track.paused;
        head.sample_rate = rate_of(call_.side(side));
        // Forged send times may overflow.
        const auto waited =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(track.newest_send_time) -
                                      static_cast<std::uint64_t>(audio.send_time));
        head.came = call_.last_seen() - Micros(std::clamp<std::int64_t>(waited, 0, LONGEST_WAIT));
        head.after_loss = track.after_loss;
        for (const auto& tap : taps_[index_of(side)]) {
            tap->push(audio.samples, audio.count, head);
        }
        track.after_loss = false;
    }

    CallFigures figures() const {
        CallFigures figures;
        figures.foreign_packets = call_.foreign_packets();
        for (const Side which : BOTH_SIDES) {
            const CallSide& side = call_.side(which);
            SideFigures& into = figures.sides[index_of(which)];
            into.stats = side.stats();
            into.pauses = side.pauses();
            into.seconds = side.sample_rate() != 0
                               ? side.seconds_at(side.position())
                               : seconds_of(side.position(), side.likely_rate());
            into.squares = side.level().squares();
            into.measured = side.level().count();
        }
        return figures;
    }

    std::shared_ptr<const CallFacts> facts() const {
        auto facts = new_facts();
        facts->source = call_.source();
        facts->ending = call_.ending();
        facts->start = call_.start();
        facts->features = call_.features();
        facts->control_packets = call_.control_packets();
        facts->failed_files = call_.failed_files();
        for (const Side which : BOTH_SIDES) {
            const CallSide& side = call_.side(which);
            SideFacts& into = facts->sides[index_of(which)];
            into.begun = side.begun();
            into.leg = side.leg().value_or(0);
            into.sample_rate = side.sample_rate();
            into.rate_assumed = side.rate_assumed();
            into.running = side.running();
            into.active = tracks_[index_of(which)].active;
        }
        return facts;
    }

    void publish() {
        for (const Side side : BOTH_SIDES) {
            call_.report_wave(side);
        }
        if (record_->try_publish(figures(), facts_changed_ ? facts() : nullptr, marks_)) {
            facts_changed_ = false;
            urgent_ = false;
        }
        ticks_left_ = UNWATCHED_TICKS;
    }

    // The first cache line.
    const CallRecord::Wishes& wishes_;
    std::uint32_t seen_;  // The wishes that have been taken.
    std::uint8_t ticks_left_ = UNWATCHED_TICKS;
    bool hears_ = true;     // The audio.
    bool tapped_ = false;   // Somebody listens.
    bool watched_ = false;  // Somebody watches the call.
    bool urgent_ = true;    // There are facts or marks to hand over.
    Call& call_;

    CallBoard& board_;
    const bool has_timeline_;
    const std::shared_ptr<CallRecord> record_;
    std::array<Track, SIDE_COUNT> tracks_;
    CallRecord::Taps taps_;
    std::vector<Mark> marks_;  // That have not been handed over yet.
    bool facts_changed_ = true;
};

}  // namespace

std::unique_ptr<CallListener> CallFeed::begin_call(Call& call) {
    return std::make_unique<FedCall>(board_, call, timelines_);
}

}  // namespace qv::node::web
