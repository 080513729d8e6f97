// Which calls the program has and has had, whatever thread receives them.
//
// Packets choose their thread by their call key, and each thread has a call table of its own. Two
// packets with the same UUID but different keys can therefore reach two tables. The directory makes
// sure that such a UUID is still one call, that an ended call is remembered for all tables, and
// that the limit of calls is that of the program.
//
// A table asks it when a call begins and ends, and for packets of calls that the table does not
// have. Packets of present calls never touch it. Any thread may call it.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_set>

#include "node/calls/call.h"
#include "node/calls/call_limits.h"
#include "node/calls/drop.h"
#include "node/calls/expiring_map.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

class CallDirectory {
  public:
    // The answer to a packet of a call that a table does not have.
    struct Admission {
        std::optional<Drop> drop;          // Why the packet is dropped. Otherwise its call begins,
        std::optional<SidePlaces> places;  // and its sides continue at these places.
    };

    explicit CallDirectory(const CallLimits& limits);
    CallDirectory(const CallDirectory&) = delete;
    CallDirectory& operator=(const CallDirectory&) = delete;

    // If the packet is not dropped, its call is present and counts from now on.
    Admission admit(const media::Packet& packet, const sockaddr_in& source) QV_EXCLUDES(mutex_);

    // The call is over. It is remembered, and counts until release().
    void end(const Call& call, EndReason reason, Micros now) QV_EXCLUDES(mutex_);

    // A call that is over has completed its files, and no longer counts.
    void release() QV_EXCLUDES(mutex_);

    // Removes ended calls that have been remembered long enough. Call it several times a second.
    void expire(Micros now) QV_EXCLUDES(mutex_);

  private:
    // What is remembered of an ended call.
    struct Ended {
        in_addr_t address;            // The address that the call belonged to.
        std::int64_t terminate_time;  // Send time of the terminate packet.
    };
    struct LeftBehind {
        in_addr_t address;
        SidePlaces places;
    };

    std::optional<Drop> reason_to_drop(const Uuid& uuid, const media::Packet& packet,
                                       const sockaddr_in& source) const QV_REQUIRES(mutex_);
    bool is_after_end(const Uuid& uuid, const media::Packet& packet) const QV_REQUIRES(mutex_);
    bool is_foreign(const Uuid& uuid, const sockaddr_in& source) const QV_REQUIRES(mutex_);

    const std::size_t max_calls_;
    const bool any_source_;
    Mutex mutex_;
    std::unordered_set<Uuid, UuidHash> present_ QV_GUARDED_BY(mutex_);  // Calls that are not over.
    std::size_t counted_ QV_GUARDED_BY(mutex_) = 0;
    ExpiringMap<Ended> terminated_ QV_GUARDED_BY(mutex_);
    // Calls that ended without a terminate packet, or with an implausible one.
    ExpiringMap<LeftBehind> left_behind_ QV_GUARDED_BY(mutex_);
};

}  // namespace qv::node
