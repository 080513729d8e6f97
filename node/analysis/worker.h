// Runs the detectors of many sides on a thread of its own, so that analysis never delays its owner.
// Audio goes in through a bounded queue; detections come out as a list.
//
// A side is a number that the owner chooses. Its audio is copied once, into the current batch;
// send() passes the batch to the thread. Audio that does not fit is refused. Each piece of audio
// carries its position and the detectors to run, so the detectors notice how much was refused
// before it.
//
// Knows nothing of calls. The public functions belong to the owner's thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "node/analysis/activity_detector.h"
#include "node/analysis/sample_detector.h"
#include "node/analysis/sample_index.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::analysis {

// Which detectors run.
struct Wanted {
    bool activity = false;
    bool detection = false;

    bool any() const { return activity || detection; }
    bool operator==(Wanted other) const {
        return activity == other.activity && detection == other.detection;
    }
    bool operator!=(Wanted other) const { return !(*this == other); }
};

// Something detected on a side. Positions are those that were given with the audio.
struct Noticed {
    enum class Kind : std::uint8_t { ACTIVE, INACTIVE, SAMPLE, FINISHED };

    std::uint64_t side;
    Kind kind;
    std::int64_t position;
    std::uint64_t heard;  // Position up to which the side had been heard.
    double score;         // Of a sample, like its name.
    std::string name;
};

class Worker {
  public:
    struct Settings {
        ActivityOptions activity;
        std::shared_ptr<const SampleIndex> samples;  // Null: none.
        // The most samples of audio that may wait, approximately: 16 MiB.
        std::size_t most_waiting = 8'000'000;
    };

    // The activity options must have no complaint.
    explicit Worker(Settings settings);
    // Does not wait for queued audio.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Whether sides of that rate in Hz can be analysed.
    static bool can_analyse(int sample_rate);

    // Adds the audio of a side from `position` on, any number of samples, for these detectors.
    // Positions must not decrease. Returns false, and adds nothing, if the queue is full.
    bool add(std::uint64_t side, int sample_rate, Wanted wanted, std::uint64_t position,
             const std::int16_t* samples, std::size_t count);

    // The side has ended. This is never refused. FINISHED is its last detection, unless more audio
    // is added under its number.
    void finish(std::uint64_t side);

    // Sides are searched for these samples from the next send() on.
    void set_samples(std::shared_ptr<const SampleIndex> samples);

    // Passes the added audio to the thread. Call it several times a second.
    void send();

    // Returns the detections since the last call, in order for each side.
    std::vector<Noticed> take();

    // Sends the added audio and waits until all of it has been heard.
    void drain();

  private:
    // A piece of audio of a side. Its samples follow those of the items before it.
    struct Item {
        std::uint64_t side;
        std::uint64_t position;
        std::size_t count;
        int sample_rate;  // 0: the side has ended.
        Wanted wanted;
    };
    struct Batch {
        std::vector<Item> items;
        std::vector<std::int16_t> samples;
        std::shared_ptr<const SampleIndex> index;
        std::size_t size() const { return samples.size() + ITEM_SIZE * items.size(); }
    };
    class Detectors;

    static constexpr std::size_t ITEM_SIZE = 24;          // An item counts as this many samples.
    static constexpr std::size_t BATCH_SAMPLES = 65'536;  // A batch of this size is sent at once.

    void append(const Item& item, const std::int16_t* samples);

    // These run on the worker's thread.
    void run() QV_EXCLUDES(mutex_);
    // Waits for the next batch and marks the worker as busy. Returns nullopt if the worker must
    // stop.
    std::optional<Batch> next_batch() QV_EXCLUDES(mutex_);
    void hear(const Batch& batch);
    void hear(const Item& item, const std::int16_t* samples, const Batch& batch);
    // Publishes what was detected in the batch, and keeps the memory of the batch.
    void publish(Batch batch) QV_EXCLUDES(mutex_);

    const Settings settings_;

    // Used only by the owner's thread.
    Batch gathered_;

    std::atomic<std::size_t> waiting_{0};  // Samples that were added but not heard yet.
    std::atomic<bool> any_noticed_{false};

    Mutex mutex_;
    Condition changed_;
    std::deque<Batch> queue_ QV_GUARDED_BY(mutex_);
    std::vector<Batch> spare_ QV_GUARDED_BY(mutex_);  // Kept to reuse their memory.
    std::vector<Noticed> noticed_ QV_GUARDED_BY(mutex_);
    bool busy_ QV_GUARDED_BY(mutex_) = false;
    bool stopping_ QV_GUARDED_BY(mutex_) = false;

    // Used only by the worker's thread.
    std::unordered_map<std::uint64_t, std::unique_ptr<Detectors>> sides_;
    std::vector<Noticed> fresh_;

    std::thread thread_;  // The last member, because the thread uses the others.
};

}  // namespace qv::node::analysis
