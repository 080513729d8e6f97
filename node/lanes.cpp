#include "node/lanes.h"

#include "node/ingest/call_spread.h"

namespace qv::node {

Lanes::Lanes(asio::io_context& loop, std::size_t count) {
    if (count == 1) {
        only_ = std::make_unique<Lane>(loop);
        return;
    }
    for (std::size_t number = 0; number < count; ++number) {
        threads_.push_back(std::make_unique<LaneThread>());
        threads_.back()->lane().share_port(
            number, count,
            [this](std::size_t lane, const Datagram& datagram) { threads_[lane]->pass(datagram); });
    }
}

// A thread that still runs may pass datagrams to any other lane, so all threads end before the
// first lane goes.
Lanes::~Lanes() {
    for (const auto& thread : threads_) {
        thread->abort();
    }
}

Lane& Lanes::lane(std::size_t number) {
    return only_ != nullptr ? *only_ : threads_[number]->lane();
}

// The first socket takes the port for itself before it shares it, so the system refuses a port that
// another program uses, even if that program would share it. A program that joins the port later
// gets no packets; see spread_calls().
std::string Lanes::open_port(const sockaddr_in& address, int buffer_bytes) {
    const int lanes = static_cast<int>(count());
    const int each = (buffer_bytes + lanes - 1) / lanes;  // Together not less than is wanted.
    std::string error = lane(0).receiver().open(address, each);
    if (error.empty() && count() > 1) {
        error = lane(0).receiver().share_port();
        sockaddr_in shared = address;
        shared.sin_port = htons(port());
        for (std::size_t number = 1; number < count() && error.empty(); ++number) {
            error = lane(number).receiver().join(shared, each);
        }
        if (error.empty()) {
            error = spread_calls(lane(0).receiver().descriptor(), count());
        }
    }
    for (std::size_t number = 0; number < count() && error.empty(); ++number) {
        granted_buffer_ += static_cast<std::uint64_t>(lane(number).receiver().granted_buffer());
    }
    return error;
}

void Lanes::start() {
    if (only_ != nullptr) {
        only_->receiver().start();
    }
    for (std::size_t number = 0; number < threads_.size(); ++number) {
        threads_[number]->start(number);
    }
}

void Lanes::tick(Micros now) {
    if (only_ != nullptr) {
        only_->tick(now);
    }
    for (const auto& thread : threads_) {
        thread->check();
    }
}

void Lanes::stop() {
    if (only_ != nullptr) {
        only_->receiver().drain_and_stop();
        only_->calls().shut_down();
    }
    for (const auto& thread : threads_) {
        thread->begin_stop();
    }
    for (const auto& thread : threads_) {
        thread->stop();
    }
    for (const auto& thread : threads_) {
        thread->end_calls();
    }
    for (const auto& thread : threads_) {
        thread->check();
    }
}

bool Lanes::report_ends() {
    bool all = true;
    for (std::size_t number = 0; number < count(); ++number) {
        lane(number).calls().report_ends();
        all = all && lane(number).calls().completing() == 0;
    }
    return all;
}

std::uint64_t Lanes::calls_ended() {
    return only_ != nullptr ? only_->calls().totals().calls_ended : figures().totals.calls_ended;
}

LaneFigures Lanes::figures() {
    if (only_ != nullptr) {
        return only_->figures();
    }
    LaneFigures sum;
    for (const auto& thread : threads_) {
        sum.add(thread->figures());
    }
    return sum;
}

}  // namespace qv::node
