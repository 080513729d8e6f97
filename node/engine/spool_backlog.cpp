#include "node/engine/spool_backlog.h"

#include <utility>

namespace qv::node {

void SpoolBacklog::forget(const Event& event) {
    if (unwritten_.erase(event->number) == 0) {  // The events of earlier runs have no number.
        forgotten_.push_back(event->id);
    }
}

std::vector<std::string> SpoolBacklog::take_forgotten() {
    return std::exchange(forgotten_, {});
}

std::vector<SpoolBacklog::Event> SpoolBacklog::next(Clock::time_point now) const {
    std::vector<Event> events;
    if (has_ready(now)) {
        for (const auto& [number, event] : unwritten_) {
            if (events.size() == AT_ONCE) {
                break;
            }
            events.push_back(event);
        }
    }
    return events;
}

void SpoolBacklog::written(const std::vector<Event>& events) {
    for (const Event& event : events) {
        if (unwritten_.erase(event->number) == 0) {
            forgotten_.push_back(event->id);  // While it was written.
        }
    }
}

}  // namespace qv::node
