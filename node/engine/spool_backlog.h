// What the spool has yet to write: events to keep, and events that it need not keep any longer.
//
// Both are bounded by the queue of events, because an event that leaves the queue before it was
// written is not written at all. Belongs to one thread at a time; the publisher guards it with its
// lock, and writes without it.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node/engine/messages.h"

namespace qv::node {

class SpoolBacklog {
  public:
    using Clock = std::chrono::steady_clock;
    using Event = std::shared_ptr<const EngineEvent>;

    // An event of this run has come.
    void add(const Event& event) { unwritten_.emplace(event->number, event); }
    // The event is stored or dropped.
    void forget(const Event& event);

    // Returns the ids that the spool may release.
    std::vector<std::string> take_forgotten();
    // Returns the oldest events that have yet to be written, at most AT_ONCE. None if the disk
    // has refused events less than RETRY before.
    std::vector<Event> next(Clock::time_point now) const;
    bool has_ready(Clock::time_point now) const { return !unwritten_.empty() && now >= next_; }

    // What became of the events of next().
    void written(const std::vector<Event>& events);
    void refused(Clock::time_point now) { next_ = now + RETRY; }
    // Before the last attempt.
    void retry_at_once() { next_ = {}; }

    // Events that have yet to be written.
    std::size_t size() const { return unwritten_.size(); }

    static constexpr std::size_t AT_ONCE = 512;
    static constexpr std::chrono::milliseconds RETRY{500};

  private:
    std::map<std::uint64_t, Event> unwritten_;  // By number.
    std::vector<std::string> forgotten_;
    Clock::time_point next_{};
};

}  // namespace qv::node
