// Runs tasks one after another on a thread of its own, for work on complete files that takes long
// and that nobody waits for: digests, conversions, descriptions.
//
// The thread gives way to the rest of the program: it runs at a lower priority. Until abandon() is
// called, any thread may add tasks. Everything else belongs to the owner's thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>

namespace qv::node {

class TaskThread {
  public:
    using Task = std::function<void()>;

    TaskThread();
    // Waits until all tasks have run, unless they were abandoned.
    ~TaskThread();
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    // What a task refers to must live until it has run. After abandon(), the task must therefore
    // own all that it uses. Returns whether the task will run: not after abandon().
    bool add(Task task);
    // The same for a short task, which runs before those that wait.
    bool add_short(Task task);
    // Tasks that have not begun.
    std::size_t waiting() const;

    // Waits until all tasks have run or the time has come. Returns whether all have run.
    bool wait(std::chrono::steady_clock::time_point until);

    // Drops the tasks that have not begun. The one at hand goes on by itself, even after this
    // object is gone.
    void abandon();
    bool abandoned() const { return !thread_.joinable(); }

  private:
    struct Queue;

    bool put(Task task, bool first);

    std::shared_ptr<Queue> queue_;
    std::thread thread_;
};

}  // namespace qv::node
