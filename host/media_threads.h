// The threads that play the frames of calls when they are due.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <queue>
#include <thread>
#include <unordered_set>
#include <vector>

#include "host/call.h"
#include "quorvane_lib/mutex.h"

namespace qv::host {

class Session;

// One direction of a playing call. While it plays, only its media thread uses it.
class MediaStream {
  public:
    using Clock = std::chrono::steady_clock;

    MediaStream(Session& session, Direction direction, std::unique_ptr<FrameSource> source,
                std::shared_ptr<FrameObserver> observer, Pace pace, Clock::time_point first_due);

    Clock::time_point due() const { return due_; }
    // Plays the frame that is due; false at the end of the source.
    bool step(Clock::time_point now);

  private:
    Session& session_;
    const Direction direction_;
    const std::unique_ptr<FrameSource> source_;
    const std::shared_ptr<FrameObserver> observer_;
    const Pace pace_;
    Clock::time_point due_;
};

// A thread that plays streams in the order in which their frames are due.
class MediaThread {
  public:
    MediaThread();
    ~MediaThread();  // stops its streams
    MediaThread(const MediaThread&) = delete;
    MediaThread& operator=(const MediaThread&) = delete;

    void add(std::shared_ptr<MediaStream> stream);
    // When it returns, no frame of the stream is with the bugs. Not to be called from a source.
    void remove(const std::shared_ptr<MediaStream>& stream);

  private:
    using Stream = std::shared_ptr<MediaStream>;
    struct Later {
        bool operator()(const Stream& left, const Stream& right) const {
            return left->due() > right->due();
        }
    };

    void run();
    // The lock is released while the frame plays.
    void play_next(MediaStream::Clock::time_point now) QV_REQUIRES(lock_);

    Mutex lock_;
    Condition changed_;
    Condition idle_;
    std::unordered_set<Stream> streams_ QV_GUARDED_BY(lock_);  // neither removed nor ended
    std::priority_queue<Stream, std::vector<Stream>, Later> waiting_ QV_GUARDED_BY(lock_);
    Stream playing_ QV_GUARDED_BY(lock_);
    std::size_t removals_ QV_GUARDED_BY(lock_) = 0;  // threads inside remove()
    bool ending_ QV_GUARDED_BY(lock_) = false;
    std::thread thread_;  // last: it uses all above
};

// The threads that the calls without threads of their own share, one set per direction.
// Any thread.
class MediaPool {
  public:
    explicit MediaPool(unsigned threads_per_direction);

    // The thread for one more stream; starts it if it does not run yet.
    MediaThread& thread_for(Direction direction);

  private:
    const unsigned per_direction_;
    Mutex lock_;
    std::vector<std::unique_ptr<MediaThread>> threads_[2] QV_GUARDED_BY(lock_);
    std::size_t next_[2] QV_GUARDED_BY(lock_) = {0, 0};
};

}  // namespace qv::host
