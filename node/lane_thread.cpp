#include "node/lane_thread.h"

#include <pthread.h>

#include <asio/post.hpp>
#include <string>
#include <utility>
#include <vector>

#include "node/tick.h"

namespace qv::node {

void LaneThread::stop() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

void LaneThread::abort() {
    loop_.stop();
    stop();
}

void LaneThread::start(std::size_t number) {
    thread_ = std::thread([this] { run(); });
    pthread_setname_np(thread_.native_handle(), ("receiver-" + std::to_string(number)).c_str());
}

void LaneThread::run() {
    try {
        lane_.receiver().start();
        schedule_tick();
        loop_.run();
    } catch (...) {
        const LockGuard lock(mutex_);
        failure_ = std::current_exception();
    }
}

void LaneThread::schedule_tick() {
    timer_.expires_after(TICK);
    timer_.async_wait([this](std::error_code error) {
        if (!error) {
            tick();
            schedule_tick();
        }
    });
}

void LaneThread::tick() {
    lane_.tick(steady_now());
    publish();
}

void LaneThread::publish() {
    LaneFigures figures = lane_.figures();
    const LockGuard lock(mutex_);
    figures.overflowed += overflowed_;
    published_ = figures;
}

void LaneThread::begin_stop() {
    asio::post(loop_, [this] {
        lane_.receiver().drain_and_stop();
        loop_.stop();
    });
}

void LaneThread::end_calls() {
    take_passed();
    lane_.calls().shut_down();
}

LaneFigures LaneThread::figures() {
    if (!thread_.joinable()) {
        publish();
    }
    const LockGuard lock(mutex_);
    return published_;
}

void LaneThread::pass(const Datagram& datagram) {
    const LockGuard lock(mutex_);
    if (passed_.bytes.size() + datagram.size > MOST_PASSED) {
        ++overflowed_;
        return;
    }
    if (passed_.places.empty()) {
        asio::post(loop_, [this] { take_passed(); });
    }
    passed_.bytes.insert(passed_.bytes.end(), datagram.data, datagram.data + datagram.size);
    passed_.places.push_back({datagram.size, datagram.arrival});
}

void LaneThread::take_passed() {
    taken_.bytes.clear();
    taken_.places.clear();
    {
        const LockGuard lock(mutex_);
        std::swap(taken_, passed_);
    }
    const unsigned char* data = taken_.bytes.data();
    for (const Passed::Place& place : taken_.places) {
        lane_.receive({data, place.size, place.arrival});
        data += place.size;
    }
}

void LaneThread::check() {
    const LockGuard lock(mutex_);
    const std::exception_ptr failure = std::exchange(failure_, nullptr);
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
}

}  // namespace qv::node
