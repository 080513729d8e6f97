// The events that the message system has not yet stored, oldest first, up to a bound.
//
// At most one event of each call is under way at a time, so that the events of a call are stored in
// their order, whatever is lost, refused or sent again. Those of different calls do not wait for
// each other. If the events exceed the bound, the oldest that is not under way is dropped.
// Belongs to one thread at a time; the publisher guards it with its lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "node/engine/messages.h"

namespace qv::node {

class EventQueue {
  public:
    using Clock = std::chrono::steady_clock;
    using Event = std::shared_ptr<const EngineEvent>;

    explicit EventQueue(std::uint64_t most_bytes) : most_bytes_(most_bytes) {}

    // Adds an event. Returns those that are dropped for it.
    std::vector<Event> push(Event event);

    // An event and the number that it has in this queue. The number 0 means that there is none.
    struct Entry {
        std::uint64_t number = 0;
        Event event;
    };
    // Returns the oldest event that may be sent now. It is under way from then on.
    Entry next(Clock::time_point now);

    // Whether next() would return an event.
    bool has_ready(Clock::time_point now) const {
        return !ready_.empty() || (!later_.empty() && later_.begin()->first <= now);
    }

    // The event has been stored and leaves the queue. Returns it, or null for an unknown number.
    Event stored(std::uint64_t number);
    // The same for an event that can never be stored. It counts as dropped.
    Event drop(std::uint64_t number);
    // The event was refused. It may be sent again from that time on.
    void refused(std::uint64_t number, Clock::time_point retry);
    // All events under way that were sent before that time may be sent again now. Returns how many.
    std::size_t send_again(Clock::time_point sent_before);

    std::size_t size() const { return waiting_.size() + under_way_.size(); }
    std::size_t under_way() const { return under_way_.size(); }
    std::uint64_t bytes() const { return bytes_; }
    std::uint64_t dropped() const { return dropped_; }

  private:
    struct Waiting {
        Event event;
        Clock::time_point time{};  // Of sending if it is under way, of the next try in later_.
    };
    using Events = std::map<std::uint64_t, Waiting>;  // By number, which is their order.

    Event remove(Events& from, Events::iterator entry);

    std::uint64_t most_bytes_;
    std::uint64_t last_number_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t dropped_ = 0;
    Events waiting_;
    Events under_way_;
    std::unordered_map<std::string, std::deque<std::uint64_t>> calls_;
    // The first event of each call is under way or in one of these:
    std::set<std::uint64_t> ready_;
    std::set<std::pair<Clock::time_point, std::uint64_t>> later_;
};

}  // namespace qv::node
