// Sends the events of a call to the report node that its start packet names: each start, activity,
// sample and end event as one datagram with one JSON object, as listed in docs/node.md.
//
// A start packet can name any address, so reports are sent only to the given networks. Sending
// never waits: a report that the system does not accept at once is lost and counted. The number of
// reports is limited for each call and for all of them; the end of a call reports how many of its
// reports were left out. An output. Any thread may call it.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/report/figures.h"
#include "node/report/rate_limit.h"
#include "quorvane_lib/mutex.h"
#include "tools/networks.h"
#include "tools/udp_socket.h"

namespace qv::node {

class ReportSender : public CallListener {
  public:
    static constexpr std::size_t LONGEST = 1200;  // Bytes of a datagram.

    // The limits: so many a second in the long run, and so many at once. The starts and ends of
    // calls count only for the second limit, of which detections leave half to them.
    static constexpr double CALL_RATE = 10;
    static constexpr double CALL_AT_ONCE = 50;
    static constexpr double RATE = 2000;
    static constexpr double AT_ONCE = 4000;

    // Throws std::system_error if no socket can be created.
    explicit ReportSender(std::vector<tools::Network> networks,
                          std::function<Micros()> clock = steady_now);

    std::unique_ptr<CallListener> begin_call(Call& call) override;

    ReportFigures figures() const QV_EXCLUDES(mutex_);

  private:
    class ReportedCall;

    // Whether the limit allows one more report, if `kept` remain for others.
    bool allows(double kept = 0) QV_EXCLUDES(mutex_);
    void leave_out() QV_EXCLUDES(mutex_);
    void send(const sockaddr_in& to, const std::string& text) QV_EXCLUDES(mutex_);
    bool may_send(const sockaddr_in& to) QV_EXCLUDES(mutex_);

    const std::vector<tools::Network> networks_;
    const std::function<Micros()> clock_;
    const tools::UdpSocket socket_;
    mutable Mutex mutex_;
    RateLimit limit_ QV_GUARDED_BY(mutex_){RATE, AT_ONCE};
    ReportFigures figures_ QV_GUARDED_BY(mutex_);
};

// Returns the event as text of at most ReportSender::LONGEST bytes. If it is too long, the fields
// "files" and "sides" are left out and "call_reference" and "sample" are cut, in this order, as far
// as necessary. The field "shortened" lists the fields that were left out or cut.
std::string report_text(const char* event, nlohmann::json fields);

}  // namespace qv::node
