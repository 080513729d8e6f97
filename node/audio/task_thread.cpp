#include "node/audio/task_thread.h"

#include <deque>
#include <utility>

#include "quorvane_lib/mutex.h"
#include "tools/thread_priority.h"

namespace qv::node {

// Shared by both threads, so that the owner may go before the thread.
struct TaskThread::Queue {
    // Runs tasks until the end.
    void run() QV_EXCLUDES(mutex) {
        tools::lower_priority(tools::Priority::BACKGROUND);
        while (Task task = next()) {
            task();
            task = nullptr;  // What it owns ends before it counts as done.
            const LockGuard lock(mutex);
            busy = false;
            progress.notify_one();
        }
    }

    // Returns no task at the end.
    Task next() QV_EXCLUDES(mutex) {
        const LockGuard lock(mutex);
        while (tasks.empty() && !stopping) {
            work.wait(mutex);
        }
        if (tasks.empty()) {
            return nullptr;
        }
        busy = true;
        Task task = std::move(tasks.front());
        tasks.pop_front();
        return task;
    }

    void stop(bool drop) QV_EXCLUDES(mutex) {
        std::deque<Task> dropped;
        {
            const LockGuard lock(mutex);
            stopping = true;
            if (drop) {
                tasks.swap(dropped);
            }
        }
        work.notify_one();
    }

    Mutex mutex;
    Condition work;
    Condition progress;
    std::deque<Task> tasks QV_GUARDED_BY(mutex);
    bool busy QV_GUARDED_BY(mutex) = false;
    bool stopping QV_GUARDED_BY(mutex) = false;
};

TaskThread::TaskThread()
    : queue_(std::make_shared<Queue>()), thread_([queue = queue_] { queue->run(); }) {}

TaskThread::~TaskThread() {
    if (!abandoned()) {
        queue_->stop(false);
        thread_.join();
    }
}

bool TaskThread::add(Task task) {
    return put(std::move(task), false);
}

bool TaskThread::add_short(Task task) {
    return put(std::move(task), true);
}

std::size_t TaskThread::waiting() const {
    const LockGuard lock(queue_->mutex);
    return queue_->tasks.size();
}

bool TaskThread::put(Task task, bool first) {
    if (abandoned()) {
        return false;
    }
    {
        const LockGuard lock(queue_->mutex);
        queue_->tasks.insert(first ? queue_->tasks.begin() : queue_->tasks.end(), std::move(task));
    }
    queue_->work.notify_one();
    return true;
}

bool TaskThread::wait(std::chrono::steady_clock::time_point until) {
    const LockGuard lock(queue_->mutex);
    while (!abandoned() && (queue_->busy || !queue_->tasks.empty()) &&
           queue_->progress.wait_until(queue_->mutex, until)) {
    }
    return abandoned() || (!queue_->busy && queue_->tasks.empty());
}

void TaskThread::abandon() {
    if (!abandoned()) {
        queue_->stop(true);
        thread_.detach();
    }
}

}  // namespace qv::node
