// How long the program waits for those who read what it writes. While a capture is read, it waits
// as long as they need: a capture is read only as fast as the outputs take what it has. Otherwise
// it waits only at the end, and only for a short time, because there may be no reader.
//
// hurry() belongs to the thread of the program's event loop. The other functions may be called by
// any thread if no capture is read, and by that one otherwise.
#pragma once

#include <chrono>
#include <functional>
#include <utility>

namespace qv::node {

class ReaderWait {
  public:
    // Called about every 50 ms of a wait. Returns false if there must be no more waiting.
    using KeepWaiting = std::function<bool()>;

    using Clock = std::chrono::steady_clock;

    // With `patient`, readers may take as long as they need, and otherwise only `longest`.
    ReaderWait(bool patient, KeepWaiting keep_waiting, Clock::duration longest = PATIENCE)
        : patient_(patient), keep_waiting_(std::move(keep_waiting)), longest_(longest) {}

    // When the next moment of a wait ends.
    static Clock::time_point next_moment() { return Clock::now() + A_MOMENT; }

    // From now on, readers are waited for only for a short time.
    void hurry() { patient_ = false; }

    // Whether text that finds no room must wait for its reader one moment more.
    bool waits_for_room() const { return patient_ && keep_waiting_(); }

    // Repeats `done` until it returns true or the time for readers is over. `done` may wait until
    // the time that it is given.
    template <typename Done>
    void wait_until(Done done) const {
        const auto end = Clock::now() + longest_;
        while (!done(next_moment()) && keep_waiting_()) {
            if (!patient_ && Clock::now() >= end) {
                return;
            }
        }
    }

  private:
    static constexpr std::chrono::milliseconds A_MOMENT{50};
    static constexpr std::chrono::seconds PATIENCE{2};

    bool patient_;
    const KeepWaiting keep_waiting_;
    const Clock::duration longest_;
};

}  // namespace qv::node
