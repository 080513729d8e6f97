// The calls that the page knows: those that go on, and the latest that have ended in this run of
// the program. Any thread may call it. The lock is held for a moment only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/web/call_record.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::web {

// A call that has ended, as a plain value.
struct FinishedCall {
    std::uint64_t id = 0;
    Uuid uuid{};
    Micros began{0};  // Since 1970.
    Micros ended{0};
    EndReason reason{};
    CallFigures figures;
    std::shared_ptr<const CallFacts> facts;  // Not null.
    std::string file_stem;                   // Of its files' names. Empty if it has none.
    std::vector<FileReport> files;
    std::string sidecar;  // Path; empty if there is none.
    bool has_timeline = false;
};

class CallBoard {
  public:
    static constexpr std::size_t MOST_FINISHED = 200;  // Older ones are forgotten.

    using Records = std::vector<std::shared_ptr<CallRecord>>;  // By id.

    struct Finished {
        std::deque<std::shared_ptr<const FinishedCall>> calls;  // The oldest first.
        std::uint64_t end = 0;                                  // How many calls have ended in all.
    };

    // Makes the record of a call that begins.
    std::shared_ptr<CallRecord> add(const Uuid& uuid, Micros began, Micros first_seen)
        QV_EXCLUDES(mutex_);
    // The call has ended.
    void finish(std::shared_ptr<const FinishedCall> call) QV_EXCLUDES(mutex_);

    const CallRecord::Wishes& wishes() const { return wishes_; }
    Records records() const QV_EXCLUDES(mutex_);
    std::shared_ptr<CallRecord> find(std::uint64_t id) const QV_EXCLUDES(mutex_);
    Finished finished() const QV_EXCLUDES(mutex_);
    std::uint64_t finished_end() const QV_EXCLUDES(mutex_);

  private:
    Records::const_iterator place_of(std::uint64_t id) const QV_REQUIRES(mutex_);

    // On a cache line of its own, because all lanes read it at each tick.
    alignas(64) CallRecord::Wishes wishes_{0};
    alignas(64) mutable Mutex mutex_;
    std::uint64_t ids_ QV_GUARDED_BY(mutex_) = 0;
    Records records_ QV_GUARDED_BY(mutex_);
    Finished finished_ QV_GUARDED_BY(mutex_);
};

}  // namespace qv::node::web
