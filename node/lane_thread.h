// A lane with an event loop and a thread of its own.
//
// Between start() and stop(), the lane belongs to that thread; before and after, to the thread that
// calls them.
#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <thread>
#include <vector>

#include "node/lane.h"
#include "node/report/figures.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

class LaneThread {
  public:
    // What each thread takes: its socket, and those of its event loop.
    static constexpr std::size_t DESCRIPTORS = 4;

    LaneThread() = default;
    ~LaneThread() { abort(); }
    LaneThread(const LaneThread&) = delete;
    LaneThread& operator=(const LaneThread&) = delete;

    // Not between start() and stop().
    Lane& lane() { return lane_; }

    // Starts to receive. The thread is named after its `number`.
    void start(std::size_t number);
    // Asks the thread to read the datagrams that have come already, and to end. Does not wait for
    // it.
    void begin_stop();
    // Waits until the thread has ended, unless it has already.
    void stop();
    // Stops the thread at once and waits for it, if it runs.
    void abort();
    // Ends all calls. Call it when all threads have ended, because each may pass datagrams on until
    // then.
    void end_calls() QV_EXCLUDES(mutex_);

    // The figures of the latest tick, or the present ones if the thread does not run.
    LaneFigures figures() QV_EXCLUDES(mutex_);
    // Throws the exception that ended the thread, if there is one; once.
    void check() QV_EXCLUDES(mutex_);

    // Handles a copy of the datagram on the lane's thread. If too many of them wait, it is dropped
    // and counted like one that found no room in the socket. Any thread may call it.
    void pass(const Datagram& datagram) QV_EXCLUDES(mutex_);

  private:
    // Datagrams that another lane has passed on. Their bytes follow each other.
    struct Passed {
        struct Place {
            std::size_t size;
            Arrival arrival;
        };
        std::vector<unsigned char> bytes;
        std::vector<Place> places;
    };

    static constexpr std::size_t MOST_PASSED = 16 << 20;  // Bytes.

    void take_passed() QV_EXCLUDES(mutex_);
    void run() QV_EXCLUDES(mutex_);
    void schedule_tick();
    void tick() QV_EXCLUDES(mutex_);
    void publish() QV_EXCLUDES(mutex_);

    asio::io_context loop_{1};
    asio::steady_timer timer_{loop_};
    Lane lane_{loop_};
    Mutex mutex_;
    LaneFigures published_ QV_GUARDED_BY(mutex_);
    Passed passed_ QV_GUARDED_BY(mutex_);
    std::uint64_t overflowed_ QV_GUARDED_BY(mutex_) = 0;
    std::exception_ptr failure_ QV_GUARDED_BY(mutex_);
    Passed taken_;        // The thread's, empty between uses: its memory is kept.
    std::thread thread_;  // The last member, because the thread uses the others.
};

}  // namespace qv::node
