// The outputs of one lane: those that keep much state for each call and therefore belong to the
// lane's thread (analysis, recordings, what the live view shows), and the list of all outputs that
// the calls of the lane report to. Outputs builds it.
//
// The functions belong to the lane's thread, except those that say otherwise.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "node/analysis/analyser.h"
#include "node/audio/background_store.h"
#include "node/audio/file_finisher.h"
#include "node/audio/recorder.h"
#include "node/audio/task_thread.h"
#include "node/calls/call_listener.h"
#include "node/report/call_snapshot.h"
#include "node/report/call_watch.h"
#include "node/report/sidecar.h"
#include "node/report/timeline.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

class LaneOutputs {
  public:
    // How often figures and snapshots are published.
    static constexpr Micros FRESH{250'000};

    struct Options {
        // Called with the name of each small file that is about to be written. Any thread.
        using OnDocument = std::function<void(const std::string& name)>;

        analysis::Worker::Settings analysis;
        Analyser::Pace pace = Analyser::Pace::LIVE;
        std::size_t most_held = Analyser::MOST_HELD;
        Recorder::Options recorder;
        FileFinisher::Options finisher;
        std::optional<Sidecar::Options> sidecar;
        bool timeline = false;
        OnDocument on_document;
        FileFinisher::NotConverted on_not_converted;  // Any thread.
        CallWatch::OnFileError on_file_error;  // If the calls are watched; any thread may call it.
    };

    // `before` and `after` are the outputs that all lanes share and that are called before and
    // after those of the lane. They and the tasks must outlive this object.
    LaneOutputs(std::unique_ptr<BackgroundStore> store, TaskThread& tasks, const Options& options,
                const std::vector<CallListener*>& before, const std::vector<CallListener*>& after);

    // The outputs, in the order in which they are called.
    const std::vector<CallListener*>& call_listeners() const { return call_listeners_; }

    // Call it several times a second. Takes note of what the threads of the files and of the
    // analysis have done, and publishes figures and snapshots.
    void update(Micros now) QV_EXCLUDES(mutex_);

    // Takes note of what the threads of the files have done.
    void update_files();

    // Any thread may call the functions below.

    Analyser::Figures analysis() const QV_EXCLUDES(mutex_);
    // Returns the calls that were there when they were published last.
    CallSnapshots calls() const QV_EXCLUDES(mutex_);
    // Sides are searched for these samples from the next update() on.
    void set_samples(std::shared_ptr<const analysis::SampleIndex> samples) QV_EXCLUDES(mutex_);

  private:
    void publish() QV_EXCLUDES(mutex_);

    const std::unique_ptr<BackgroundStore> store_;
    FileFinisher finisher_;
    Analyser analyser_;
    Recorder recorder_;
    std::unique_ptr<Sidecar> sidecar_;  // These are null unless requested.
    std::unique_ptr<Timeline> timeline_;
    std::unique_ptr<CallWatch> watch_;
    std::vector<CallListener*> call_listeners_;
    Micros published_at_{0};

    mutable Mutex mutex_;
    Analyser::Figures analysis_ QV_GUARDED_BY(mutex_);
    CallSnapshots calls_ QV_GUARDED_BY(mutex_) = std::make_shared<std::vector<CallSnapshot>>();
    // Null unless there are new ones.
    std::shared_ptr<const analysis::SampleIndex> new_samples_ QV_GUARDED_BY(mutex_);
};

}  // namespace qv::node
