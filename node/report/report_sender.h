// Sends the events of a call to the report node that its start packet names: each start, activity,
// sample and end event as one datagram with one JSON object, as listed in docs/node.md.
//
// A start packet can name any address, so reports are sent only to the given networks. Sending
// never waits: a report that the system does not accept at once is lost and counted. An output.
// Belongs to one thread.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/report/figures.h"
#include "tools/networks.h"
#include "tools/udp_socket.h"

namespace qv::node {

class ReportSender : public CallListener {
  public:
    static constexpr std::size_t LONGEST = 1200;  // Bytes of a datagram.

    // Throws std::system_error if no socket can be created.
    explicit ReportSender(std::vector<tools::Network> networks);

    std::unique_ptr<CallListener> begin_call(Call& call) override;

    const ReportFigures& figures() const { return figures_; }

  private:
    class ReportedCall;

    void send(const sockaddr_in& to, const std::string& text);

    const std::vector<tools::Network> networks_;
    tools::UdpSocket socket_;
    ReportFigures figures_;
};

// Returns the event as text of at most ReportSender::LONGEST bytes. If it is too long, the fields
// "files" and "sides" are left out and "call_reference" and "sample" are cut, in this order, as far
// as necessary. The field "shortened" lists the fields that were left out or cut.
std::string report_text(const char* event, nlohmann::json fields);

}  // namespace qv::node
