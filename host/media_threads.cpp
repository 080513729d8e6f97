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
        const std::lock_guard<std::mutex> guard(lock_);
        ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void MediaThread::add(Stream stream) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        waiting_.push(std::move(stream));
    }
    changed_.notify_one();
}

// The stream may stay queued until it is due; the thread then drops it unplayed.
void MediaThread::remove(const Stream& stream) {
    std::unique_lock<std::mutex> guard(lock_);
    stream->stopped_ = true;
    ++removals_;
    idle_.wait(guard, [&] { return playing_ != stream; });
    --removals_;
}

void MediaThread::run() {
    std::unique_lock<std::mutex> guard(lock_);
    while (!ending_) {
        if (waiting_.empty()) {
            changed_.wait(guard);
            continue;
        }
        const auto now = MediaStream::Clock::now();
        const auto due = waiting_.top()->due();
        if (due > now) {
            changed_.wait_until(guard, due);
        } else {
            play_next(guard, now);
        }
    }
}

void MediaThread::play_next(std::unique_lock<std::mutex>& guard,
                            MediaStream::Clock::time_point now) {
    playing_ = waiting_.top();
    waiting_.pop();
    bool more = false;
    if (!playing_->stopped_) {
        guard.unlock();
        more = playing_->step(now);
        guard.lock();
    }
    if (more && !playing_->stopped_) {
        waiting_.push(playing_);
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
    const std::lock_guard<std::mutex> guard(lock_);
    auto& threads = threads_[side];
    if (threads.size() < per_direction_) {
        threads.push_back(std::make_unique<MediaThread>());
    }
    return *threads[next_[side]++ % per_direction_];
}

}  // namespace qv::host
