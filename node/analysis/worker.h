// Runs the detectors of many sides on a thread of its own, so that analysis never delays its
// owner: audio goes in by a bounded queue, what was heard comes out by a list.
//
// A side is a number of the owner's choice. Its audio is copied once, into the batch that is
// being gathered; send() hands the batch over. What does not fit is refused. Each piece of
// audio says where it belongs and which detectors are to run, so whatever was refused before
// it is made good: detectors are told how much they did not hear.
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

// What was noticed of a side. Positions are those that the audio was given.
struct Noticed {
    enum class Kind : std::uint8_t { ACTIVE, INACTIVE, SAMPLE, FINISHED };

    std::uint64_t side;
    Kind kind;
    std::int64_t position;
    std::uint64_t heard;  // Position up to which sound had been heard.
    double score;         // Of a sample, as its name.
    std::string name;
};

class Worker {
  public:
    struct Settings {
        ActivityOptions activity;
        std::shared_ptr<const SampleIndex> samples;  // Null for none.
        // Samples of audio that wait at most, about: 16 MiB.
        std::size_t most_waiting = 8'000'000;
    };

    // The options of activity must have no complaint.
    explicit Worker(Settings settings);
    // Does not wait for what is queued.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Whether sides of that rate in Hz can be analysed.
    static bool can_analyse(int sample_rate);

    // From `position` on these detectors run over the side, and this audio comes, of any number
    // of samples. Positions do not go back. Returns false where the queue is full: nothing was
    // taken then.
    bool add(std::uint64_t side, int sample_rate, Wanted wanted, std::uint64_t position,
             const std::int16_t* samples, std::size_t count);

    // The side is over; is never refused. FINISHED is the last that is noticed of it, unless
    // more audio of that number is added.
    void finish(std::uint64_t side);

    // Sides are searched for these samples from the next send() on.
    void set_samples(std::shared_ptr<const SampleIndex> samples);

    // Hands over what was added; to be called some times a second.
    void send();

    // What was noticed since the last time, in order for each side.
    std::vector<Noticed> take();

    // Sends, and waits until all of it has been heard.
    void drain();

  private:
    // One piece of audio of a side; its samples follow those of the items before it.
    struct Item {
        std::uint64_t side;
        std::uint64_t position;
        std::size_t count;
        int sample_rate;  // 0: the side is over.
        Wanted wanted;
    };
    struct Batch {
        std::vector<Item> items;
        std::vector<std::int16_t> samples;
        std::shared_ptr<const SampleIndex> index;
        std::size_t size() const { return samples.size() + ITEM_SIZE * items.size(); }
    };
    class Detectors;

    static constexpr std::size_t ITEM_SIZE = 24;          // As much as so many samples.
    static constexpr std::size_t BATCH_SAMPLES = 65'536;  // Is sent at once.

    void append(const Item& item, const std::int16_t* samples);

    // These run on the worker's thread.
    void run() QV_EXCLUDES(mutex_);
    // Waits for the next batch and marks the worker as busy; nullopt when the worker stops.
    std::optional<Batch> next_batch() QV_EXCLUDES(mutex_);
    void hear(const Batch& batch);
    void hear(const Item& item, const std::int16_t* samples, const Batch& batch);
    // Hands out what was noticed of the batch and keeps its memory.
    void publish(Batch batch) QV_EXCLUDES(mutex_);

    const Settings settings_;

    // The owner's.
    Batch gathered_;

    std::atomic<std::size_t> waiting_{0};  // Of what was gathered and not heard yet.
    std::atomic<bool> any_noticed_{false};

    Mutex mutex_;
    Condition changed_;
    std::deque<Batch> queue_ QV_GUARDED_BY(mutex_);
    std::vector<Batch> spare_ QV_GUARDED_BY(mutex_);  // Their memory is used again.
    std::vector<Noticed> noticed_ QV_GUARDED_BY(mutex_);
    bool busy_ QV_GUARDED_BY(mutex_) = false;
    bool stopping_ QV_GUARDED_BY(mutex_) = false;

    // The worker's.
    std::unordered_map<std::uint64_t, std::unique_ptr<Detectors>> sides_;
    std::vector<Noticed> fresh_;

    std::thread thread_;  // Last: it begins to run when all else is there.
};

}  // namespace qv::node::analysis
