#include "node/calls/pause_map.h"

namespace qv::node {

void PauseMap::add(const Pause& pause) {
    const std::uint64_t before =
        pauses_.empty() ? 0 : pauses_.back().before + pauses_.back().samples;
    pauses_.push_back({pause.position, pause.samples, before});
    if (pauses_.size() > MOST_PAUSES) {
        pauses_.pop_front();
    }
}

std::uint64_t PauseMap::place_of(std::uint64_t position, bool is_end) const {
    std::uint64_t paused = 0;
    for (const Paused& pause : pauses_) {
        if (pause.position > position || (is_end && pause.position == position)) {
            return position + pause.before;
        }
        paused = pause.before + pause.samples;
    }
    return position + paused;
}

std::int64_t PauseMap::position_at(std::int64_t place) const {
    auto before = static_cast<std::int64_t>(pauses_.empty() ? 0 : pauses_.front().before);
    for (const Paused& pause : pauses_) {
        const auto position = static_cast<std::int64_t>(pause.position);
        const std::int64_t end = position + before + static_cast<std::int64_t>(pause.samples);
        if (place < end) {
            return place > position + before ? position : place - before;
        }
        before += static_cast<std::int64_t>(pause.samples);
    }
    return place - before;
}

}  // namespace qv::node
