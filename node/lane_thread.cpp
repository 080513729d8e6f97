#include "node/lane_thread.h"

#include <pthread.h>

#include <asio/post.hpp>
#include <string>
#include <utility>
#include <vector>

#include "node/tick.h"

namespace qv::node {

LaneThread::~LaneThread() {
    if (thread_.joinable()) {
        loop_.stop();
        thread_.join();
    }
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
    Passed passed;
    {
        const LockGuard lock(mutex_);
        std::swap(passed, passed_);
    }
    const unsigned char* data = passed.bytes.data();
    for (const Passed::Place& place : passed.places) {
        lane_.receive({data, place.size, place.arrival});
        data += place.size;
    }
}

void LaneThread::check() {
    const LockGuard lock(mutex_);
    if (failure_ != nullptr) {
        std::rethrow_exception(failure_);
    }
}

}  // namespace qv::node
