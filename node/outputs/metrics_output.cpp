#include "node/outputs/metrics_output.h"

#include <exception>

#include "tools/address.h"

namespace qv::node {

std::string MetricsOutput::open(const std::optional<sockaddr_in>& address) {
    if (!address.has_value()) {
        return {};
    }
    try {
        port_ = std::make_unique<MetricsPort>(metrics_, *address);
    } catch (const std::exception&) {  // Its text would describe the internals of the library.
        return "cannot serve metrics on " + tools::address_text(*address) +
               ": the port is in use or not permitted, or the address is not of this machine";
    }
    sockaddr_in served = *address;
    served.sin_port = htons(port_->port());
    url_ = "http://" + tools::address_text(served) + "/metrics";
    return {};
}

}  // namespace qv::node
