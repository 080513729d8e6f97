#include "node/lane_outputs.h"

#include <utility>

namespace qv::node {

LaneOutputs::LaneOutputs(std::unique_ptr<BackgroundStore> store, TaskThread& tasks,
                         const Options& options, const std::vector<CallListener*>& before,
                         const std::vector<CallListener*>& after)
    : store_(std::move(store)),
      finisher_(*store_, tasks, options.finisher, options.on_not_converted),
      analyser_(options.analysis, options.pace, options.most_held),
      recorder_(finisher_, options.recorder),
      watch_(options.on_file_error ? std::make_unique<CallWatch>(options.on_file_error) : nullptr),
      call_listeners_(before),
      analysis_(analyser_.figures()) {
    call_listeners_.push_back(&analyser_);
    call_listeners_.push_back(&recorder_);
    if (options.sidecar.has_value()) {
        sidecar_ = std::make_unique<Sidecar>(tasks, *options.sidecar, options.on_document);
        call_listeners_.push_back(sidecar_.get());
    }
    if (options.timeline) {
        timeline_ = std::make_unique<Timeline>(
            [this, on_document = options.on_document](const std::string& name, std::string svg) {
                on_document(name);
                return store_->write_text(name, std::move(svg));
            });
        call_listeners_.push_back(timeline_.get());
    }
    if (watch_ != nullptr) {
        call_listeners_.push_back(watch_.get());
    }
    call_listeners_.insert(call_listeners_.end(), after.begin(), after.end());
}

void LaneOutputs::update_files() {
    store_->update();
    finisher_.update();
}

void LaneOutputs::update(Micros now) {
    update_files();
    std::shared_ptr<const analysis::SampleIndex> new_samples;
    {
        const LockGuard lock(mutex_);
        new_samples.swap(new_samples_);
    }
    if (new_samples != nullptr) {
        analyser_.set_samples(std::move(new_samples));
    }
    analyser_.update();
    if (now - published_at_ >= FRESH) {
        published_at_ = now;
        publish();
    }
}

void LaneOutputs::publish() {
    CallSnapshots calls;
    if (watch_ != nullptr) {
        calls = std::make_shared<std::vector<CallSnapshot>>(watch_->take_snapshots());
    }
    const LockGuard lock(mutex_);
    analysis_ = analyser_.figures();
    if (calls != nullptr) {
        calls_.swap(calls);  // The former ones are freed after the lock.
    }
}

Analyser::Figures LaneOutputs::analysis() const {
    const LockGuard lock(mutex_);
    return analysis_;
}

CallSnapshots LaneOutputs::calls() const {
    const LockGuard lock(mutex_);
    return calls_;
}

void LaneOutputs::set_samples(std::shared_ptr<const analysis::SampleIndex> samples) {
    const LockGuard lock(mutex_);
    new_samples_ = std::move(samples);
}

}  // namespace qv::node
