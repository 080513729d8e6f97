#include "tools/call/frame_tally.h"

#include <algorithm>

#include "quorvane/media_packet.h"

namespace qv::tools::call {

std::uint64_t packets_of_frame(std::uint32_t bytes) {
    const std::uint64_t chunks = (bytes + media::MAX_AUDIO_SIZE - 1) / media::MAX_AUDIO_SIZE;
    return std::max<std::uint64_t>(chunks, 1);
}

void FrameTally::played(host::Direction direction, const host::FrameResult& result,
                        std::chrono::nanoseconds lateness) {
    constexpr auto relaxed = std::memory_order_relaxed;
    Counters& counters = counters_[static_cast<std::size_t>(direction)];
    counters.frames.fetch_add(1, relaxed);
    counters.bytes.fetch_add(result.bytes, relaxed);
    if (result.bugs == 0) {
        return;
    }
    counters.tapped_frames.fetch_add(1, relaxed);
    counters.packets.fetch_add(result.given == 0 ? 0 : packets_of_frame(result.bytes), relaxed);
    counters.altered.fetch_add(result.altered ? 1 : 0, relaxed);
    handling_.add(result.handling);
    if (paced_) {
        lateness_.add(lateness);
    }
}

FrameTally::Side FrameTally::side(host::Direction direction) const {
    const Counters& counters = counters_[static_cast<std::size_t>(direction)];
    return {counters.frames.load(), counters.bytes.load(), counters.tapped_frames.load(),
            counters.packets.load(), counters.altered.load()};
}

std::uint64_t FrameTally::frames() const {
    return counters_[0].frames.load() + counters_[1].frames.load();
}

}  // namespace qv::tools::call
