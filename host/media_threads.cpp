#include "host/media_threads.h"

#include <algorithm>
#include <utility>

#include "host/session.h"

namespace qv::host {

MediaStream::MediaStream(Session& session, Direction direction, std::unique_ptr<FrameSource> source,
                         std::shared_ptr<FrameObserver> observer, Pace pace,
                         Clock::time_point first_due)
    : session_(session),
      direction_(direction),
      source_(std::move(source)),
      observer_(std::move(observer)),
      pace_(pace),
      due_(first_due) {}

bool MediaStream::step(Clock::time_point now) {
    const bool paced = pace_ == Pace::PACED;
    const auto lateness = paced ? now - due_ : Clock::duration::zero();
    const auto result = session_.leg(direction_).feed_from(*source_, lateness);
    if (!result) {
        session_.media_ended();
        return false;
    }
    if (observer_) {
        observer_->played(direction_, *result,
                          paced ? Clock::now() - due_ : Clock::duration::zero());
    }
    due_ = paced ? due_ + session_.options().frame_time : now;
    return true;
}

MediaThread::MediaThread() : thread_([this] { run(); }) {}

MediaThread::~MediaThread() {
    {
        const LockGuard guard(lock_);
        ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void MediaThread::add(Stream stream) {
    {
        const LockGuard guard(lock_);
        streams_.insert(stream);
        waiting_.push(std::move(stream));
    }
    changed_.notify_one();
}

// The stream may stay queued until it is due; the thread then drops it unplayed.
void MediaThread::remove(const Stream& stream) {
    const LockGuard guard(lock_);
    streams_.erase(stream);
    ++removals_;
    while (playing_ == stream) {
        idle_.wait(lock_);
    }
    --removals_;
}

void MediaThread::run() {
    const LockGuard guard(lock_);
    while (!ending_) {
        if (waiting_.empty()) {
            changed_.wait(lock_);
            continue;
        }
        const auto now = MediaStream::Clock::now();
        const auto due = waiting_.top()->due();
        if (due > now) {
            changed_.wait_until(lock_, due);
        } else {
            play_next(now);
        }
    }
}

void MediaThread::play_next(MediaStream::Clock::time_point now) {
    const Stream stream = waiting_.top();
    waiting_.pop();
    playing_ = stream;
    if (streams_.count(stream) > 0) {
        lock_.unlock();
        const bool more = stream->step(now);
        lock_.lock();
        if (!more) {
            streams_.erase(stream);
        } else if (streams_.count(stream) > 0) {
            waiting_.push(stream);
        }
    }
    playing_.reset();
    if (removals_ > 0) {
        idle_.notify_all();
    }
}

MediaPool::MediaPool(unsigned threads_per_direction)
    : per_direction_(std::max(threads_per_direction, 1u)) {}

MediaThread& MediaPool::thread_for(Direction direction) {
    const auto side = static_cast<std::size_t>(direction);
    const LockGuard guard(lock_);
    auto& threads = threads_[side];
    if (threads.size() < per_direction_) {
        threads.push_back(std::make_unique<MediaThread>());
    }
    return *threads[next_[side]++ % per_direction_];
}

}  // namespace qv::host
