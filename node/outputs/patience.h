// How long the program waits for others: for those who read what it writes, for a server, for
// commands.
//
// While a capture is read, it waits for readers as long as they need: a capture is read only as
// fast as the outputs take what it has. Otherwise it waits only at the end, and only for a short
// time, because there may be no reader.
//
// hurry() belongs to the thread of the program's event loop. Any thread may call the other
// functions unless a capture is read; then they belong to that thread, too.
#pragma once

#include <chrono>
#include <functional>
#include <utility>

namespace qv::node {

class Patience {
  public:
    // Called about every 50 ms of a wait. Returns false if there must be no more waiting.
    using KeepWaiting = std::function<bool()>;

    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds A_MOMENT{50};
    static constexpr std::chrono::seconds WITH_READERS{2};

    // With `endless`, readers may take as long as they need, and otherwise only `with_readers`.
    Patience(bool endless, KeepWaiting keep_waiting, Clock::duration with_readers = WITH_READERS)
        : endless_(endless), keep_waiting_(std::move(keep_waiting)), with_readers_(with_readers) {}

    // From now on, readers are waited for only for a short time.
    void hurry() { endless_ = false; }

    // Whether text that finds no room must wait for its reader one moment more.
    bool waits_for_room() const { return endless_ && keep_waiting_(); }

    // Repeats `done` until it returns true or the time for readers is over. `done` may wait until
    // the time that it is given.
    template <typename Done>
    void wait_for_reader(Done done) const {
        const auto end = Clock::now() + with_readers_;
        while (!done(Clock::now() + A_MOMENT) && keep_waiting_()) {
            if (!endless_ && Clock::now() >= end) {
                return;
            }
        }
    }

    // Repeats `done`, which may wait a moment, until it returns true or this time is over.
    template <typename Done>
    void wait(std::chrono::duration<double> longest, Done done) const {
        const auto end = Clock::now() + longest;
        while (!done() && keep_waiting_() && Clock::now() < end) {
        }
    }

  private:
    bool endless_;
    const KeepWaiting keep_waiting_;
    const Clock::duration with_readers_;
};

}  // namespace qv::node
