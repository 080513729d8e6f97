// Reports what concerns no single call, as lines and as events: that the node listens, malformed
// datagrams, lost packets, calls beyond the limit. Any thread may call malformed() and listen();
// the other functions belong to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "node/audio/open_list.h"
#include "node/audio/retention.h"
#include "node/calls/types.h"
#include "node/report/event_log.h"
#include "node/report/figures.h"
#include "node/report/line_report.h"
#include "quorvane/media_packet.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

class Notices {
  public:
    // Both must outlive this object. `events` is null if no events are written. With `quiet_lines`,
    // only what the user must know is written as lines, because the live view shows the rest.
    Notices(LineReport& lines, EventLog* events, bool quiet_lines)
        : lines_(lines), events_(events), quiet_lines_(quiet_lines) {}

    void listening(const std::string& address);
    // Files that a killed run left behind and that have been repaired.
    void left_behind(const std::vector<LeftoverFile>& files);
    // Somebody begins to listen to a call, or, with `seconds`, has listened for so long; the
    // arguments are those of EventLog::listen(). Any thread may call it.
    void listen(const Uuid& call, const std::string& sides, const std::string& from,
                std::optional<double> seconds);
    // What --keep has removed, or why it does not.
    void removed(const RetentionResult& result);
    // The `count`th datagram of this thread that is malformed for that reason. Only the first few
    // of all threads are reported.
    void malformed(const Datagram& datagram, media::DecodeResult reason, std::uint64_t count)
        QV_EXCLUDES(mutex_);
    // The number of datagrams that the system has dropped so far. Reports the increase.
    void overflowed(std::uint64_t total);
    // The number of datagrams so far from senders that are not allowed; `source` is the sender of
    // the latest. Reports the increase.
    void not_allowed(std::uint64_t total, const sockaddr_in& source);
    // The bytes of audio so far for which no memory was left while they waited for the disk.
    // Reports the increase.
    void audio_dropped(std::uint64_t total);
    // The number of reports so far to addresses that are not allowed. Reports the increase.
    void reports_not_allowed(const ReportFigures& figures);
    // The number of reports so far that were left out because there were too many. Reports the
    // increase.
    void too_many_reports(std::uint64_t total);
    // What was lost so far because too much waited for NATS, or because it was too long for it.
    // Reports the increase.
    void nats_lost(const EngineFigures& figures);
    // The number of packets so far of calls beyond the limit. Reports the increase.
    void too_many_calls(std::uint64_t total);
    // All of the above that can come in floods, except overflowed() and malformed().
    void losses(const NodeFigures& figures);

  private:
    std::uint64_t count_malformed(media::DecodeResult reason) QV_EXCLUDES(mutex_);

    LineReport& lines_;
    EventLog* events_;
    bool quiet_lines_;
    std::uint64_t reported_overflow_ = 0;
    std::uint64_t reported_dropped_audio_ = 0;
    std::uint64_t reported_not_allowed_ = 0;
    std::uint64_t reported_too_many_ = 0;
    std::uint64_t reported_refused_reports_ = 0;
    std::uint64_t reported_too_many_reports_ = 0;
    std::uint64_t reported_lost_events_ = 0;
    std::uint64_t reported_lost_chunks_ = 0;
    Mutex mutex_;
    // By reason; those that no thread had to report are not counted.
    std::array<std::uint64_t, media::DECODE_RESULT_COUNT> malformed_ QV_GUARDED_BY(mutex_){};
};

}  // namespace qv::node
