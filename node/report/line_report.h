// Reports calls and their packets in lines for people. An output. Any thread may call it; the lines
// of one report stay together.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "node/calls/call_listener.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

class LineReport : public CallListener {
  public:
    // `out` must outlive the report. flush() makes the lines visible.
    explicit LineReport(std::ostream& out) : out_(out) {}

    void started(const Call& call, const media::Packet& packet) override;
    void features_changed(const Call& call, const media::Packet& packet) override;
    void terminated(const Call& call, const media::Packet& packet) override;
    void terminate_refused(const Call& call, const media::Packet& packet) override;
    void foreign(const Call& call, const sockaddr_in& source) override;
    void rate_changed(const Call& call, Side side, const RateChange& change) override;
    void gap(const Call& call, Side side, const Gap& gap) override;
    void running_changed(const Call& call, Side side, std::uint64_t position) override;
    void activity(const Call& call, Side side, const Activity& activity) override;
    void sample_found(const Call& call, Side side, const FoundSample& sample) override;
    void file_failed(const Call& call, const FileReport& file) override;
    void ended(const Call& call, EndReason reason) override;

    // Writes a line that concerns no call.
    void say(const std::string& what, const std::string& text) QV_EXCLUDES(mutex_);

    // From now on the date has a line of its own, before the first line and before the first line
    // of each further day.
    void show_dates() QV_EXCLUDES(mutex_);

    // From now on, the first hundred lines of say() are kept until release() writes them: the live
    // view owns the screen meanwhile.
    void hold() QV_EXCLUDES(mutex_);
    void release() QV_EXCLUDES(mutex_);

    void flush() QV_EXCLUDES(mutex_);

  private:
    // A line of a call.
    struct Line {
        std::string what;
        std::string text;
    };

    void write(const Call& call, const std::vector<Line>& lines) QV_EXCLUDES(mutex_);
    void line(const Call& call, const std::string& what, const std::string& text);
    void put(std::string line) QV_REQUIRES(mutex_);
    void tell_date() QV_REQUIRES(mutex_);

    static constexpr std::size_t MOST_HELD = 100;

    Mutex mutex_;
    std::ostream& out_ QV_GUARDED_BY(mutex_);
    bool dates_ QV_GUARDED_BY(mutex_) = false;
    std::string told_date_ QV_GUARDED_BY(mutex_);
    bool holding_ QV_GUARDED_BY(mutex_) = false;
    std::vector<std::string> held_ QV_GUARDED_BY(mutex_);
};

}  // namespace qv::node
