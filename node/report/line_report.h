// Reports calls and their packets in lines for people. An output. Belongs to one thread.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "node/calls/call_listener.h"

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
    void say(const std::string& what, const std::string& text);

    // From now on the date has a line of its own, before the first line and before the first line
    // of each further day.
    void show_dates() { dates_ = true; }

    // From now on, the first hundred lines of say() are kept until release() writes them: the live
    // view owns the screen meanwhile.
    void hold() { holding_ = true; }
    void release();

    void flush() { out_.flush(); }

  private:
    void line(const Call& call, const std::string& what, const std::string& text);
    void put(std::string line);
    void tell_date();

    static constexpr std::size_t MOST_HELD = 100;

    std::ostream& out_;
    bool dates_ = false;
    std::string told_date_;
    bool holding_ = false;
    std::vector<std::string> held_;
};

}  // namespace qv::node
