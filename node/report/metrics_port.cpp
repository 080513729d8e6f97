#include "node/report/metrics_port.h"

#include <prometheus/exposer.h>

#include "node/report/metrics.h"
#include "tools/address.h"

namespace qv::node {

MetricsPort::MetricsPort(const Metrics& metrics, const sockaddr_in& address)
    : exposer_(std::make_unique<prometheus::Exposer>(tools::address_text(address), 1)) {
    for (const auto& collectable : metrics.collectables()) {
        exposer_->RegisterCollectable(collectable);
    }
}

MetricsPort::~MetricsPort() = default;

std::uint16_t MetricsPort::port() const {
    return static_cast<std::uint16_t>(exposer_->GetListeningPorts().at(0));
}

}  // namespace qv::node
