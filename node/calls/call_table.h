// The present calls of one thread: finds the call of a packet, adds and ends calls. Call handles
// the effect of a packet; CallDirectory knows the calls of all threads and remembers ended calls.
//
// A call is identified by its UUID; its call key must stay the same. After its terminate packet, a
// call waits a moment for packets that were sent earlier. Its UUID is then remembered for some
// time, so that a late packet does not look like a new call. A call that timed out (it may be on
// hold) or became too old may continue as another call without a start packet. For this, the places
// of its sides are remembered for as long as a call may last.
//
// The caller passes the time. Belongs to one thread. Two tables share nothing but the directory and
// the outputs that both receive.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "node/calls/call.h"
#include "node/calls/call_directory.h"
#include "node/calls/call_limits.h"
#include "node/calls/call_listener.h"
#include "node/calls/expiring_map.h"
#include "node/calls/totals.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

class CallTable {
  public:
    // `outputs` are not owned and must outlive the table. The tables of one program share a
    // directory; without one, the table has its own.
    CallTable(const CallLimits& limits, const std::vector<CallListener*>& outputs,
              std::shared_ptr<CallDirectory> directory = nullptr);
    CallTable(const CallTable&) = delete;
    CallTable& operator=(const CallTable&) = delete;

    // Handles a decoded packet.
    void receive(const media::Packet& packet, const Arrival& arrival);

    // Ends calls that are due. Call it several times a second.
    void tick(Micros now);

    // Ends all calls. The ends of those whose files are still being completed are reported by
    // report_ends().
    void shut_down();

    // Reports the ends of calls whose files are complete now. tick() does it, too.
    void report_ends();
    // Calls that are over, but whose files are not complete.
    std::size_t completing() const { return completing_.size(); }

    const Totals& totals() const { return totals_; }
    std::size_t size() const { return calls_.size(); }

  private:
    using Calls = std::unordered_map<Uuid, std::unique_ptr<Call>, UuidHash>;

    struct Completing {
        std::unique_ptr<Call> call;
        EndReason reason;
        bool summed_up = false;
    };

    // Sums the call up when its files are complete. Returns whether its end can be reported.
    static bool is_complete(Completing& each);
    Call* find(const media::Packet& packet);
    Call* add(const media::Packet& packet, const Arrival& arrival);
    Call* replace(Call& call, const media::Packet& packet, const Arrival& arrival);
    void end(Call& call, EndReason reason, Micros now);
    void end_due_calls(Micros now);
    void report_end(Call& call, EndReason reason);

    const CallLimits limits_;
    Totals totals_;
    CallCounter counter_{totals_};
    std::vector<CallListener*> outputs_;  // The counter, then those of the constructor.
    Calls calls_;
    std::vector<Completing> completing_;
    // Call of the latest packet, because packets of a call often come together.
    Call* last_ = nullptr;
    const std::shared_ptr<CallDirectory> directory_;
};

}  // namespace qv::node
