#include "node/lane.h"

#include <utility>

#include "node/ingest/call_spread.h"

namespace qv::node {

Lane::Lane(asio::io_context& loop)
    : receiver_(loop, [this](const Datagram& datagram) { take(datagram); }) {}

void Lane::share_port(std::size_t number, std::size_t lanes, PassOn pass_on) {
    number_ = number;
    lanes_ = lanes;
    pass_on_ = std::move(pass_on);
}

void Lane::open_calls(const Shared& shared, LaneOutputs& outputs) {
    outputs_ = &outputs;
    calls_.emplace(shared.limits, outputs.call_listeners(), shared.directory);
    intake_.emplace(*calls_, shared.on_malformed);
    intake_->allow_only(shared.allowed);
}

void Lane::take(const Datagram& datagram) {
    if (lanes_ > 1) {
        const std::size_t lane = socket_of_call(datagram.data, datagram.size, lanes_);
        if (lane != number_) {
            pass_on_(lane, datagram);
            return;
        }
    }
    receive(datagram);
}

void Lane::tick(Micros now) {
    calls_->tick(now);
    outputs_->update(now);
}

LaneFigures Lane::figures() {
    LaneFigures figures;
    figures.totals = calls_->totals();
    figures.malformed = intake_->malformed();
    figures.received = receiver_.received();
    figures.not_allowed = intake_->not_allowed();
    figures.latest_not_allowed = intake_->latest_not_allowed();
    figures.latest_not_allowed_time = intake_->latest_not_allowed_time();
    figures.overflowed = receiver_.overflowed();
    figures.calls = calls_->size();
    figures.last_arrival = intake_->last_arrival();
    return figures;
}

}  // namespace qv::node
