#include "node/engine/event_queue.h"

#include <algorithm>
#include <utility>

namespace qv::node {

std::vector<EventQueue::Event> EventQueue::push(Event event) {
    const std::uint64_t number = ++last_number_;
    std::deque<std::uint64_t>& of_call = calls_[event->call];
    of_call.push_back(number);
    if (of_call.size() == 1) {
        ready_.insert(number);
    }
    bytes_ += event->size();
    waiting_[number].event = std::move(event);
    std::vector<Event> dropped;
    while (bytes_ > most_bytes_ && !waiting_.empty()) {
        ++dropped_;
        dropped.push_back(remove(waiting_, waiting_.begin()));
    }
    return dropped;
}

EventQueue::Event EventQueue::remove(Events& from, Events::iterator entry) {
    const auto [number, waiting] = *entry;
    from.erase(entry);
    bytes_ -= waiting.event->size();
    ready_.erase(number);
    later_.erase({waiting.time, number});
    const auto of_call = calls_.find(waiting.event->call);
    std::deque<std::uint64_t>& numbers = of_call->second;
    const bool was_first = numbers.front() == number;
    numbers.erase(std::find(numbers.begin(), numbers.end(), number));
    if (numbers.empty()) {
        calls_.erase(of_call);
    } else if (was_first) {
        ready_.insert(numbers.front());
    }
    return waiting.event;
}

EventQueue::Entry EventQueue::next(Clock::time_point now) {
    while (!later_.empty() && later_.begin()->first <= now) {
        ready_.insert(later_.begin()->second);
        later_.erase(later_.begin());
    }
    if (ready_.empty()) {
        return {};
    }
    const std::uint64_t number = *ready_.begin();
    ready_.erase(ready_.begin());
    Waiting& sent = under_way_.insert(waiting_.extract(number)).position->second;
    sent.time = now;
    return {number, sent.event};
}

EventQueue::Event EventQueue::stored(std::uint64_t number) {
    for (Events* const events : {&under_way_, &waiting_}) {
        const auto entry = events->find(number);
        if (entry != events->end()) {
            return remove(*events, entry);
        }
    }
    return nullptr;
}

EventQueue::Event EventQueue::drop(std::uint64_t number) {
    Event event = stored(number);
    dropped_ += event != nullptr ? 1 : 0;
    return event;
}

void EventQueue::refused(std::uint64_t number, Clock::time_point retry) {
    auto refused = under_way_.extract(number);
    if (!refused.empty()) {
        refused.mapped().time = retry;
        waiting_.insert(std::move(refused));
        later_.emplace(retry, number);
    }
}

std::size_t EventQueue::send_again(Clock::time_point sent_before) {
    const std::size_t before = under_way_.size();
    for (auto next = under_way_.begin(); next != under_way_.end();) {
        const auto each = next++;
        if (each->second.time < sent_before) {
            ready_.insert(each->first);
            waiting_.insert(under_way_.extract(each));
        }
    }
    return before - under_way_.size();
}

}  // namespace qv::node
