#include "node/engine/event_queue.h"

#include <algorithm>

namespace qv::node {

std::vector<EventQueue::Event> EventQueue::push(Event event) {
    const std::uint64_t number = ++last_number_;
    std::deque<std::uint64_t>& of_call = calls_[event->call];
    of_call.push_back(number);
    if (of_call.size() == 1) {
        ready_.insert(number);
    }
    bytes_ += event->size();
    events_[number].event = std::move(event);
    std::vector<Event> dropped;
    while (bytes_ > most_bytes_ && under_way_.size() < events_.size()) {
        dropped.push_back(drop_oldest());
    }
    return dropped;
}

EventQueue::Event EventQueue::drop_oldest() {
    auto oldest = events_.begin();
    while (under_way_.count(oldest->first) != 0) {
        ++oldest;
    }
    ++dropped_;
    return remove(oldest);
}

EventQueue::Event EventQueue::remove(Events::iterator entry) {
    const auto [number, waiting] = *entry;
    events_.erase(entry);
    bytes_ -= waiting.event->size();
    ready_.erase(number);
    later_.erase({waiting.not_before, number});
    under_way_.erase(number);
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
    under_way_[number] = now;
    return {number, events_.at(number).event};
}

EventQueue::Event EventQueue::stored(std::uint64_t number) {
    const auto entry = events_.find(number);
    return entry == events_.end() ? nullptr : remove(entry);
}

EventQueue::Event EventQueue::drop(std::uint64_t number) {
    Event event = stored(number);
    dropped_ += event != nullptr ? 1 : 0;
    return event;
}

void EventQueue::refused(std::uint64_t number, Clock::time_point retry) {
    if (under_way_.erase(number) != 0) {
        events_.at(number).not_before = retry;
        later_.emplace(retry, number);
    }
}

std::size_t EventQueue::send_again(Clock::time_point sent_before) {
    const std::size_t before = under_way_.size();
    for (auto each = under_way_.begin(); each != under_way_.end();) {
        if (each->second < sent_before) {
            ready_.insert(each->first);
            each = under_way_.erase(each);
        } else {
            ++each;
        }
    }
    return before - under_way_.size();
}

}  // namespace qv::node
