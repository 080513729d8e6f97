#include "node/engine/audio_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace qv::node {

namespace {

using Clock = AudioQueue::Clock;

EngineChunk chunk(std::uint64_t sequence, std::size_t samples = 0) {
    EngineChunk chunk;
    chunk.sequence = sequence;
    chunk.samples.resize(samples);
    return chunk;
}

class AudioQueueTest : public ::testing::Test {
  protected:
    static std::string sequences(const AudioQueue::Batch& batch) {
        std::string text;
        for (const EngineChunk& each : batch) {
            text += std::to_string(each.sequence) + ' ';
        }
        return text;
    }

    // Room for four chunks without samples, each of 384 bytes.
    AudioQueue queue_{4 * 384};
    const Clock::time_point now_ = Clock::now();
};

TEST_F(AudioQueueTest, ChunksAreSentInOrder) {
    queue_.push(chunk(1));
    queue_.push(chunk(2));
    const AudioQueue::Batch batch = queue_.take(now_);
    EXPECT_EQ(sequences(batch), "1 2 ");
    EXPECT_EQ(queue_.size(), 2U);
    queue_.sent(batch);
    EXPECT_EQ(queue_.size(), 0U);
    EXPECT_EQ(queue_.bytes(), 0U);
    EXPECT_EQ(queue_.sent_chunks(), 2U);
    EXPECT_TRUE(queue_.take(now_).empty());
}

TEST_F(AudioQueueTest, OldestChunksAreDroppedBeyondTheBound) {
    for (std::uint64_t sequence = 1; sequence <= 6; ++sequence) {
        queue_.push(chunk(sequence));
    }
    EXPECT_EQ(queue_.lost_chunks(), 2U);
    EXPECT_EQ(sequences(queue_.take(now_)), "3 4 5 6 ");
}

TEST_F(AudioQueueTest, ChunksUnderWayCountForTheBoundAndAreNotDropped) {
    queue_.push(chunk(1));
    queue_.push(chunk(2));
    queue_.push(chunk(3));
    AudioQueue::Batch batch = queue_.take(now_);
    queue_.push(chunk(4));
    queue_.push(chunk(5));
    EXPECT_EQ(queue_.lost_chunks(), 1U);
    EXPECT_EQ(queue_.size(), 4U);
    EXPECT_EQ(queue_.bytes(), 4U * 384);
    queue_.put_back(std::move(batch), now_);
    EXPECT_EQ(sequences(queue_.take(now_)), "1 2 3 5 ");
}

TEST_F(AudioQueueTest, BatchThatWasNotTakenWaitsInItsPlace) {
    queue_.push(chunk(1));
    AudioQueue::Batch batch = queue_.take(now_);
    queue_.push(chunk(2));
    const auto later = now_ + std::chrono::milliseconds(100);
    queue_.put_back(std::move(batch), later);
    EXPECT_FALSE(queue_.has_ready(now_));
    EXPECT_TRUE(queue_.take(now_).empty());
    EXPECT_TRUE(queue_.has_ready(later));
    EXPECT_EQ(sequences(queue_.take(later)), "1 2 ");
    EXPECT_EQ(queue_.sent_chunks(), 0U);
}

TEST_F(AudioQueueTest, ChunkThatCanNeverBeSentIsLostOnce) {
    queue_.push(chunk(1));
    queue_.push(chunk(2));
    AudioQueue::Batch batch = queue_.take(now_);
    queue_.lose(batch.front());
    batch.erase(batch.begin());
    queue_.put_back(std::move(batch), now_);
    EXPECT_EQ(queue_.size(), 1U);
    EXPECT_EQ(queue_.bytes(), 384U);
    batch = queue_.take(now_);
    EXPECT_EQ(sequences(batch), "2 ");
    queue_.sent(batch);
    EXPECT_EQ(queue_.lost_chunks(), 1U);
    EXPECT_EQ(queue_.sent_chunks(), 1U);
    EXPECT_EQ(queue_.bytes(), 0U);
}

TEST_F(AudioQueueTest, BatchesKeepTheirPaceUnlessMoreWaits) {
    EXPECT_EQ(queue_.next(), Clock::time_point::max());
    EXPECT_TRUE(queue_.push(chunk(1)));
    EXPECT_EQ(sequences(queue_.take(now_)), "1 ");
    EXPECT_TRUE(queue_.push(chunk(2)));
    EXPECT_FALSE(queue_.push(chunk(3)));
    EXPECT_TRUE(queue_.take(now_).empty());
    EXPECT_EQ(queue_.next(), now_ + AudioQueue::PACE);
    EXPECT_EQ(sequences(queue_.take(now_ + AudioQueue::PACE)), "2 3 ");

    AudioQueue full{std::uint64_t{1} << 30};
    for (std::size_t sequence = 1; sequence <= AudioQueue::BATCH_CHUNKS + 1; ++sequence) {
        full.push(chunk(sequence));
    }
    full.sent(full.take(now_));
    EXPECT_EQ(full.take(now_).size(), 1U);
}

TEST_F(AudioQueueTest, BatchIsBounded) {
    AudioQueue queue{std::uint64_t{1} << 30};
    for (std::size_t sequence = 1; sequence <= AudioQueue::BATCH_CHUNKS + 1; ++sequence) {
        queue.push(chunk(sequence));
    }
    EXPECT_EQ(queue.take(now_).size(), AudioQueue::BATCH_CHUNKS);
    AudioQueue large{std::uint64_t{1} << 30};
    for (std::uint64_t sequence = 1; sequence <= 4; ++sequence) {
        large.push(chunk(sequence, AudioQueue::BATCH_BYTES / 4));  // Half the bytes.
    }
    EXPECT_EQ(sequences(large.take(now_)), "1 2 ");
}

}  // namespace

}  // namespace qv::node
