#include "node/engine/audio_queue.h"

#include <iterator>
#include <utility>

namespace qv::node {

bool AudioQueue::push(EngineChunk chunk) {
    const bool first = waiting_.empty();
    bytes_ += chunk.size();
    waiting_.push_back(std::move(chunk));
    drop();
    return first;
}

AudioQueue::Batch AudioQueue::take(Clock::time_point now) {
    Batch batch;
    std::uint64_t bytes = 0;
    const bool ready = has_ready(now);
    while (ready && !waiting_.empty() && bytes < BATCH_BYTES && batch.size() < BATCH_CHUNKS) {
        bytes += waiting_.front().size();
        batch.push_back(std::move(waiting_.front()));
        waiting_.pop_front();
    }
    under_way_ = batch.size();
    if (waiting_.empty()) {
        next_ = now + PACE;
    }
    return batch;
}

void AudioQueue::lose(const EngineChunk& chunk) {
    ++lost_;
    --under_way_;
    bytes_ -= chunk.size();
}

void AudioQueue::sent(const Batch& batch) {
    under_way_ = 0;
    sent_ += batch.size();
    for (const EngineChunk& chunk : batch) {
        bytes_ -= chunk.size();
    }
}

void AudioQueue::put_back(Batch batch, Clock::time_point next) {
    under_way_ = 0;
    next_ = next;
    waiting_.insert(waiting_.begin(), std::make_move_iterator(batch.begin()),
                    std::make_move_iterator(batch.end()));
    drop();
}

void AudioQueue::drop() {
    while (bytes_ > most_bytes_ && !waiting_.empty()) {
        bytes_ -= waiting_.front().size();
        waiting_.pop_front();
        ++lost_;
    }
}

}  // namespace qv::node
