// The chunks of audio that the message system has not yet taken, in order, up to a bound.
//
// They are sent in batches, one at a time and not too often, because each batch wakes threads here
// and at the server. If the chunks exceed the bound, the oldest that is not under way is dropped.
// Belongs to one thread at a time; the publisher guards it with its lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <vector>

#include "node/engine/messages.h"

namespace qv::node {

class AudioQueue {
  public:
    using Clock = std::chrono::steady_clock;
    using Batch = std::vector<EngineChunk>;

    explicit AudioQueue(std::uint64_t most_bytes) : most_bytes_(most_bytes) {}

    // Returns whether next() has changed.
    bool push(EngineChunk chunk);

    // When take() will return chunks. In the far future if none waits.
    Clock::time_point next() const { return waiting_.empty() ? Clock::time_point::max() : next_; }
    bool has_ready(Clock::time_point now) const { return now >= next(); }
    // Returns the oldest chunks, which are under way until sent() or put_back().
    Batch take(Clock::time_point now);

    // A chunk of the batch can never be sent. It counts as lost and leaves the batch.
    void lose(const EngineChunk& chunk);
    // The message system has taken the batch.
    void sent(const Batch& batch);
    // It may not have taken the batch, which waits again until that time, in its place.
    void put_back(Batch batch, Clock::time_point next);

    std::size_t size() const { return waiting_.size() + under_way_; }
    std::uint64_t bytes() const { return bytes_; }
    std::uint64_t sent_chunks() const { return sent_; }
    std::uint64_t lost_chunks() const { return lost_; }

    static constexpr std::uint64_t BATCH_BYTES = 512ULL * 1024;
    static constexpr std::size_t BATCH_CHUNKS = 512;
    // Between two batches, unless the first is as large as a batch may be.
    static constexpr std::chrono::milliseconds PACE{5};

  private:
    void drop();

    std::uint64_t most_bytes_;
    std::deque<EngineChunk> waiting_;
    std::size_t under_way_ = 0;
    std::uint64_t bytes_ = 0;  // Of all chunks, with those under way.
    Clock::time_point next_{};
    std::uint64_t sent_ = 0;
    std::uint64_t lost_ = 0;
};

}  // namespace qv::node
