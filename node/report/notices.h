// What happens to the receiver beside its calls, in lines and as events: that it listens,
// datagrams that are no packets, packets that were lost or are too many. Belongs to one thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "node/audio/open_list.h"
#include "node/calls/types.h"
#include "node/report/event_log.h"
#include "node/report/figures.h"
#include "node/report/line_report.h"
#include "quorvane/media_packet.h"

namespace qv::node {

class Notices {
  public:
    // Both must outlive this object; `events` is null when none are written. With `quiet_lines`
    // only what the user must know becomes lines: while a live view shows the rest.
    Notices(LineReport& lines, EventLog* events, bool quiet_lines)
        : lines_(lines), events_(events), quiet_lines_(quiet_lines) {}

    void listening(const std::string& address);
    // Files that a run that was killed has left, and that have been repaired.
    void left_behind(const std::vector<LeftoverFile>& files);
    // The `count`th datagram that is malformed for that reason; the first few are reported.
    void malformed(const Datagram& datagram, media::DecodeResult reason, std::uint64_t count);
    // Datagrams that the system dropped since the beginning; reports what is new.
    void overflowed(std::uint64_t total);
    // Datagrams of senders that are not allowed since the beginning, the latest of them from
    // `source`; reports what is new.
    void not_allowed(std::uint64_t total, const sockaddr_in& source);
    // Reports to addresses that are not allowed since the beginning; reports what is new.
    void reports_not_allowed(const ReportFigures& figures);
    // Packets of calls beyond the limit since the beginning; reports what is new.
    void too_many_calls(std::uint64_t total);

  private:
    LineReport& lines_;
    EventLog* events_;
    bool quiet_lines_;
    std::uint64_t reported_overflow_ = 0;
    std::uint64_t reported_not_allowed_ = 0;
    std::uint64_t reported_too_many_ = 0;
    std::uint64_t reported_refused_reports_ = 0;
};

}  // namespace qv::node
