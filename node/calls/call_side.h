// One side of a call: handles its data packets, puts them in order, finds the sample rate, its
// changes and the sender's pauses, measures the level of the audio, and passes it on to the call's
// listeners. Owned by its call; belongs to one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "node/calls/call_limits.h"
#include "node/calls/drop.h"
#include "node/calls/level_meter.h"
#include "node/calls/pause_finder.h"
#include "node/calls/rate_change_finder.h"
#include "node/calls/rate_estimator.h"
#include "node/calls/reorder_buffer.h"
#include "node/calls/types.h"
#include "node/calls/wave_gatherer.h"
#include "quorvane/media_packet.h"

namespace qv::node {

class Call;

// Where a side continues.
struct SidePlace {
    std::uint32_t sequence_number;
    std::uint32_t sample_offset;
};

class CallSide : private OrderedOutput {
  public:
    // Both must outlive the side.
    CallSide(Call& call, Side which, const CallLimits& limits);
    CallSide(const CallSide&) = delete;
    CallSide& operator=(const CallSide&) = delete;

    // For the call that owns the side.

    // Handles a data packet of this side. Returns why it is dropped, or nullopt.
    std::optional<Drop> receive(const media::Packet& packet, Micros now);
    // Gives up waiting for packets that are too late.
    void give_up_waiting(Micros now);
    // Delivers everything that is held.
    void finish();
    // If no sample rate has been found, decides on one from what is known.
    void decide_rate();
    // Applies these features to the audio from the sample sent at that time on, or at once if that
    // sample has been passed on already. Call it in the order of the times.
    void run_from(std::int64_t send_time, Running running);
    // From now on, gathers the waveform.
    void gather_wave() { gathers_wave_ = true; }
    // Passes on the columns of the waveform that have been gathered, and so many silent ones.
    void report_wave(std::uint64_t silent);
    // The side continues from that place, where an earlier call left it. Call it before any packet.
    void continue_from(const std::optional<SidePlace>& place) { left_at_ = place; }
    // Where a later call continues. Nullopt if no packet came.
    std::optional<SidePlace> place() const;

    // For outputs.

    bool begun() const { return leg_.has_value(); }
    // The leg that carries the side, set by its first packet.
    std::optional<std::uint8_t> leg() const { return leg_; }
    // Hz, of the audio that comes next. 0 while it is unknown.
    int sample_rate() const { return sample_rate_; }
    // The rate of the sample at that position.
    int sample_rate_at(std::uint64_t position) const;
    // The rate at the beginning of the side.
    int first_sample_rate() const { return sample_rate_at(0); }
    // The time of a position since the beginning of the side, in seconds, without pauses.
    double seconds_at(std::uint64_t position) const;
    // The same for a position that may lie before the beginning: its time is then below 0.
    double seconds_from_begin(std::int64_t position) const;
    // How often the rate has changed.
    std::uint64_t rate_changes() const { return rate_changes_.size(); }
    // Whether the rate could not be found from the packets.
    bool rate_assumed() const { return rate_assumed_; }
    // The rate at the beginning of the side, or the likeliest one while it is unknown. Above 0.
    int likely_rate() const;
    // Samples passed on so far: audio and the silence of gaps.
    std::uint64_t position() const { return buffer_.position() - samples_behind(); }
    // The same, with pauses.
    std::uint64_t position_with_pauses() const { return pauses_.position(); }
    double seconds_with_pauses() const { return pauses_.position_s(sample_rate_); }
    // The position of the sample that was due at that send time. For a time after all packets so
    // far, it is the next position, including held packets.
    std::uint64_t position_at(std::int64_t send_time) const;
    // The features that run on the audio that comes next or is being passed on.
    Running running() const { return running_; }
    std::uint64_t pauses() const { return pauses_.pauses(); }
    const ReorderBuffer::Stats& stats() const { return buffer_.stats(); }
    const LevelMeter& level() const { return level_; }
    // Packets of audio, including repeated ones.
    std::uint64_t bytes() const { return bytes_; }
    // The sample offset at which the side began. 0 unless the node joined the call late. Known with
    // the side's first audio.
    std::uint64_t joined_at() const { return joined_at_; }
    // The sample offset of the audio that is passed on next.
    std::uint32_t expected_offset() const {
        return buffer_.expected_offset() - static_cast<std::uint32_t>(samples_behind());
    }

  private:
    // A change of features at a position that the audio has not reached.
    struct Change {
        std::uint64_t position;
        Running running;
    };
    // Limits the changes that wait, because forged ones must not accumulate.
    static constexpr std::size_t MOST_CHANGES = 64;
    static constexpr std::size_t MOST_RATE_CHANGES = 50;  // Each change may create a file.

    void audio(const std::int16_t* samples, std::size_t count, std::int64_t send_time) override;
    void gap(const Gap& gap) override;

    // Audio or a gap that waits until it is known whether there is a pause before it, or what its
    // sample rate is.
    struct Waiting {
        std::vector<std::int16_t> samples;
        std::int64_t send_time;
        std::optional<Gap> gap;
    };

    void begin(const media::Packet& packet);
    bool is_joined_late(const media::Packet& packet, int rate) const;
    void find_place(const media::Packet& packet);
    void mark_axis(const media::Packet& packet, std::uint32_t first_offset);
    void note_newest(const media::Packet& packet);
    void measure_rate(const media::Packet& packet);
    void set_rate(int rate);
    ReorderBuffer::Verdict put_in_order(const media::Packet& packet, Micros now);
    // Samples that the buffer has delivered but that have not been passed on.
    std::uint64_t samples_behind() const { return held_samples_ + waiting_samples_; }
    RateChangeFinder::Finding look_for_rate_change(std::size_t count, std::int64_t send_time);
    void settle_rate();
    void change_rate(int rate);
    void take(const std::int16_t* samples, std::size_t count, std::int64_t send_time);
    void take(const Gap& gap);
    void pass_on(const std::int16_t* samples, std::size_t count, std::int64_t send_time);
    void pass_on(const Gap& gap);
    void measure(const std::int16_t* samples, std::size_t count);
    void measure_silence(std::uint64_t samples);
    double lag_s(std::int64_t send_time, std::size_t count);
    void place_first_audio(double lag_s);
    void wait(const std::int16_t* samples, std::size_t count, std::int64_t send_time, double lag_s);
    void release_waiting(bool confirmed);
    void add_pause(double lag_s, double longest_s);
    int pause_rate() const;
    double longest_pause(int rate) const;
    std::uint64_t change_at(std::uint64_t position);

    Call& call_;
    const Side which_;
    const CallLimits& limits_;
    ReorderBuffer buffer_;
    RateEstimator estimator_;
    PauseFinder pauses_;
    LevelMeter level_;
    Running running_;
    bool gathers_wave_ = false;
    std::vector<Change> changes_;  // By position.
    std::optional<std::uint8_t> leg_;
    std::optional<SidePlace> left_at_;  // Set by an earlier call that this one continues.
    int sample_rate_ = 0;
    bool rate_assumed_ = false;
    std::vector<RateChange> rate_changes_;
    RateChangeFinder rate_change_finder_;
    // While the rate is in doubt. Comes before the contents of waiting_.
    std::vector<Waiting> held_;
    std::uint64_t held_samples_ = 0;
    Micros held_since_{0};
    std::uint64_t bytes_ = 0;
    std::uint64_t joined_at_ = 0;
    bool joining_ = false;  // Until the first audio.
    bool placed_ = false;   // Whether the first audio has its place in time.
    std::vector<Waiting> waiting_;
    std::uint64_t waiting_samples_ = 0;  // Audio and the silence of gaps.
    Micros waiting_since_{0};
    double least_lag_s_ = 0;             // Of the waiting audio,
    std::int64_t least_lag_time_ = 0;    // and the send time at which it was reached.
    std::int64_t newest_send_time_ = 0;  // Of the packet that was sent last,
    std::uint32_t newest_end_ = 0;       // and the sample offset at its end.
    WaveGatherer wave_;                  // The last, because it is needed only if it gathers.
};

}  // namespace qv::node
