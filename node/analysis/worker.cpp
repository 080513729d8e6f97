#include "node/analysis/worker.h"

#include <iterator>
#include <utility>

#include "tools/thread_priority.h"

namespace qv::node::analysis {

namespace {

constexpr std::size_t MOST_SPARE = 4;

}  // namespace

// The detectors of one side. Stores what they detect.
class Worker::Detectors : private ActivityOutput, private SampleOutput {
  public:
    Detectors(std::uint64_t side, int sample_rate, const ActivityOptions& options,
              std::vector<Noticed>& noticed)
        : side_(side), sample_rate_(sample_rate), options_(options), noticed_(noticed) {}

    int sample_rate() const { return sample_rate_; }

    void run(Wanted wanted, const std::shared_ptr<const SampleIndex>& index,
             std::uint64_t position) {
        run_activity(wanted.activity, position);
        run_detection(wanted.detection, index, position);
    }

    void add(const std::int16_t* samples, std::size_t count) {
        if (activity_ != nullptr) {
            activity_->add(samples, count, *this);
        }
        if (detection_ != nullptr) {
            detection_->add(samples, count, *this);
        }
    }

    // Ends activity that is still going on, and reports this.
    void finish() {
        if (activity_ != nullptr) {
            activity_->finish(*this);
            activity_.reset();
        }
    }

  private:
    void run_activity(bool wanted, std::uint64_t position) {
        if (activity_ != nullptr && position > activity_->position()) {
            activity_->skip(position - activity_->position(), *this);
        }
        if (!wanted) {
            finish();
        } else if (activity_ == nullptr) {
            activity_ = std::make_unique<ActivityDetector>(sample_rate_, options_, position);
        }
    }

    void run_detection(bool wanted, const std::shared_ptr<const SampleIndex>& index,
                       std::uint64_t position) {
        if (!wanted || index == nullptr) {
            detection_.reset();
        } else if (detection_ == nullptr || index_ != index) {
            detection_ = std::make_unique<SampleDetector>(index, sample_rate_, position);
            index_ = index;
        } else if (position > detection_->position()) {
            detection_->skip(position - detection_->position(), *this);
        }
    }

    void activity(const ActivityChange& change) override {
        noticed_.push_back({side_,
                            change.active ? Noticed::Kind::ACTIVE : Noticed::Kind::INACTIVE,
                            static_cast<std::int64_t>(change.position),
                            change.heard,
                            0,
                            {}});
    }

    void sample(const SampleFound& found) override {
        noticed_.push_back(
            {side_, Noticed::Kind::SAMPLE, found.position, found.heard, found.score, found.name});
    }

    const std::uint64_t side_;
    const int sample_rate_;
    const ActivityOptions& options_;
    std::vector<Noticed>& noticed_;
    std::shared_ptr<const SampleIndex> index_;  // The index that detection_ uses.
    std::unique_ptr<ActivityDetector> activity_;
    std::unique_ptr<SampleDetector> detection_;
};

Worker::Worker(Settings settings) : settings_(std::move(settings)), thread_([this] { run(); }) {
    gathered_.index = settings_.samples;
}

Worker::~Worker() {
    {
        const LockGuard guard(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

bool Worker::can_analyse(int sample_rate) {
    return sample_rate >= ActivityDetector::LOWEST_RATE &&
           sample_rate <= ActivityDetector::HIGHEST_RATE;
}

bool Worker::add(std::uint64_t side, int sample_rate, Wanted wanted, std::uint64_t position,
                 const std::int16_t* samples, std::size_t count) {
    if (waiting_ + count + ITEM_SIZE > settings_.most_waiting) {
        return false;
    }
    append({side, position, count, sample_rate, wanted}, samples);
    if (gathered_.samples.size() >= BATCH_SAMPLES) {
        send();
    }
    return true;
}

void Worker::append(const Item& item, const std::int16_t* samples) {
    gathered_.items.push_back(item);
    if (samples != nullptr) {
        gathered_.samples.insert(gathered_.samples.end(), samples, samples + item.count);
    }
    waiting_ += item.count + ITEM_SIZE;
}

void Worker::finish(std::uint64_t side) {
    append({side, 0, 0, 0, {}}, nullptr);
}

void Worker::set_samples(std::shared_ptr<const SampleIndex> samples) {
    send();
    gathered_.index = std::move(samples);
}

void Worker::send() {
    if (gathered_.items.empty()) {
        return;
    }
    std::shared_ptr<const SampleIndex> index = gathered_.index;
    {
        const LockGuard guard(mutex_);
        queue_.push_back(std::exchange(gathered_, {}));
        if (!spare_.empty()) {
            gathered_ = std::move(spare_.back());
            spare_.pop_back();
        }
    }
    gathered_.index = std::move(index);
    changed_.notify_all();
}

std::vector<Noticed> Worker::take() {
    if (!any_noticed_) {
        return {};
    }
    const LockGuard guard(mutex_);
    any_noticed_ = false;
    return std::exchange(noticed_, {});
}

void Worker::drain() {
    send();
    const LockGuard guard(mutex_);
    while (!queue_.empty() || busy_) {
        changed_.wait(mutex_);
    }
}

void Worker::run() {
    tools::lower_priority(tools::Priority::BUFFERED);
    while (std::optional<Batch> batch = next_batch()) {
        hear(*batch);
        waiting_ -= batch->size();
        publish(std::move(*batch));
    }
}

std::optional<Worker::Batch> Worker::next_batch() {
    const LockGuard guard(mutex_);
    while (!stopping_ && queue_.empty()) {
        changed_.wait(mutex_);
    }
    if (stopping_) {
        return std::nullopt;
    }
    std::optional<Batch> batch = std::move(queue_.front());
    queue_.pop_front();
    busy_ = true;
    return batch;
}

void Worker::publish(Batch batch) {
    batch.items.clear();
    batch.samples.clear();
    batch.index.reset();
    {
        const LockGuard guard(mutex_);
        busy_ = false;
        noticed_.insert(noticed_.end(), std::make_move_iterator(fresh_.begin()),
                        std::make_move_iterator(fresh_.end()));
        any_noticed_ = !noticed_.empty();
        if (spare_.size() < MOST_SPARE) {
            spare_.push_back(std::move(batch));
        }
    }
    fresh_.clear();
    changed_.notify_all();
}

void Worker::hear(const Batch& batch) {
    const std::int16_t* samples = batch.samples.data();
    for (const Item& item : batch.items) {
        hear(item, samples, batch);
        samples += item.count;
    }
}

void Worker::hear(const Item& item, const std::int16_t* samples, const Batch& batch) {
    std::unique_ptr<Detectors>& detectors = sides_[item.side];
    if (detectors != nullptr && detectors->sample_rate() != item.sample_rate) {
        detectors->finish();
        detectors.reset();
    }
    if (!item.wanted.any()) {
        if (detectors != nullptr) {
            detectors->run(item.wanted, batch.index, item.position);
        }
        sides_.erase(item.side);
        if (item.sample_rate == 0) {
            fresh_.push_back({item.side, Noticed::Kind::FINISHED, 0, 0, 0, {}});
        }
        return;
    }
    if (detectors == nullptr) {
        detectors =
            std::make_unique<Detectors>(item.side, item.sample_rate, settings_.activity, fresh_);
    }
    detectors->run(item.wanted, batch.index, item.position);
    detectors->add(samples, item.count);
}

}  // namespace qv::node::analysis
