// Sends what happens in a call to the report node that its start packet names: each start,
// activity, sample and end event as one datagram with one JSON object, as docs/node.md lists
// them.
//
// A start packet can name any address, so reports go to the given networks only. They are sent
// without waiting: what the system does not take at once is lost, and counted. An output. Belongs
// to one thread.
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

namespace qv::node {

class ReportSender : public CallListener {
  public:
    static constexpr std::size_t LONGEST = 1200;  // Bytes of a datagram.

    // Throws std::system_error where no socket can be had.
    explicit ReportSender(std::vector<tools::Network> networks);
    ~ReportSender() override;
    ReportSender(const ReportSender&) = delete;
    ReportSender& operator=(const ReportSender&) = delete;

    std::unique_ptr<CallListener> begin_call(Call& call) override;

    const ReportFigures& figures() const { return figures_; }

  private:
    class ReportedCall;

    bool is_allowed(const sockaddr_in& address) const;
    void send(const sockaddr_in& to, const std::string& text);

    const std::vector<tools::Network> networks_;
    const int socket_;
    ReportFigures figures_;
};

// The event as text of at most ReportSender::LONGEST bytes. If it would be longer, it loses the
// fields "files" and "sides" and the ends of "call_reference" and "sample", in this order, as
// far as need be. The field "shortened" lists those that were left out or cut.
std::string report_text(const char* event, nlohmann::json fields);

}  // namespace qv::node
