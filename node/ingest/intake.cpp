#include "node/ingest/intake.h"

#include <utility>

namespace qv::node {

Intake::Intake(CallTable& calls, OnMalformed on_malformed)
    : calls_(calls), on_malformed_(std::move(on_malformed)) {}

void Intake::receive(const Datagram& datagram) {
    if (!allowed_.allow(datagram.arrival.source)) {
        ++not_allowed_;
        latest_not_allowed_ = datagram.arrival.source;
        latest_not_allowed_time_ = datagram.arrival.time;
        return;
    }
    last_arrival_ = datagram.arrival.time;
    media::Packet packet;
    const media::DecodeResult result = media::decode_packet(datagram.data, datagram.size, packet);
    if (result == media::DecodeResult::OK) {
        calls_.receive(packet, datagram.arrival);
        return;
    }
    on_malformed_(datagram, result, ++malformed_[static_cast<std::size_t>(result)]);
}

}  // namespace qv::node
