// Decides whether the result of a task counts: either the task finishes, or its owner gives it up.
//
// A task goes on after it was given up. It must then change nothing that others can see, because
// the owner has reported the file as it was.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace qv::node {

class TaskOutcome {
  public:
    // The functions of the task's thread. None of them throws.

    // Call it before each step that others can see, such as giving a file its name. Returns false
    // if the work was given up: the step must not be taken.
    bool go_on() {
        State state = State::RUNNING;
        return state_.compare_exchange_strong(state, State::PUBLISHING) ||
               state == State::PUBLISHING;
    }
    // The task does not touch its results any more.
    void finish() {
        State state = state_;
        while (state != State::GIVEN_UP && !state_.compare_exchange_weak(state, State::DONE)) {
        }
    }

    // The functions of the owner's thread.

    // Returns whether the task has finished or was given up; with `give_up_now`, gives it up unless
    // it has finished. A step that has begun gets a moment to end. If the disk hangs, the step may
    // end later, but the task takes no other.
    bool settled(bool give_up_now) {
        if (give_up_now) {
            give_up();
        }
        const State state = state_;
        return state == State::DONE || state == State::GIVEN_UP;
    }
    // Whether the task has finished and was not given up. If so, the owner may read its results.
    bool done() const { return state_ == State::DONE; }

  private:
    enum class State : std::uint8_t { RUNNING, PUBLISHING, DONE, GIVEN_UP };
    static constexpr std::chrono::seconds A_MOMENT{1};

    void give_up() {
        const auto until = std::chrono::steady_clock::now() + A_MOMENT;
        State state = State::RUNNING;
        while (!state_.compare_exchange_strong(state, State::GIVEN_UP) &&
               state == State::PUBLISHING) {
            if (std::chrono::steady_clock::now() < until) {
                state = State::RUNNING;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }

    std::atomic<State> state_{State::RUNNING};
};

}  // namespace qv::node
