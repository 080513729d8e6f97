// Calls at one moment, as plain values: what the live view shows of them. Each lane publishes the
// snapshots of its calls, which never change after that, so any thread may use them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "node/calls/call.h"
#include "node/calls/level_meter.h"
#include "node/calls/running.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

struct SideSnapshot {
    bool begun = false;
    std::uint8_t leg = 0;
    int sample_rate = 0;  // Hz; 0 while it is not known.
    double seconds = 0;   // Of audio so far. While the rate is unknown, the likeliest one is used.
    ReorderBuffer::Stats stats;
    std::uint64_t pauses = 0;
    Running running;
    double level_db = SILENCE_DB;  // Since the snapshot before.
    bool active = false;           // As the analysis has it.
};

struct CallSnapshot {
    struct Sample {
        Side side;
        double seconds;  // From the beginning of the side.
        std::string name;
    };

    Uuid uuid{};
    sockaddr_in source{};
    Micros first_seen{0};
    bool ending = false;
    std::optional<StartFields> start;  // Nullopt until the start packet comes.
    media::features16_t features{};
    std::uint64_t control_packets = 0;
    std::uint64_t foreign_packets = 0;
    std::array<SideSnapshot, SIDE_COUNT> sides;
    std::vector<Sample> samples;  // The latest that were recognised, the last one last.
    std::vector<FileReport> failed_files;

    const SideSnapshot& side(Side which) const { return sides[index_of(which)]; }
    std::uint64_t lost_packets() const { return sides[0].stats.lost() + sides[1].stats.lost(); }
};

// The calls of one lane, in no particular order. Not null.
using CallSnapshots = std::shared_ptr<const std::vector<CallSnapshot>>;

// The calls of the whole program: those of each lane.
class AllCalls {
  public:
    void add(CallSnapshots calls) { lanes_.push_back(std::move(calls)); }

    std::size_t size() const {
        std::size_t sum = 0;
        for (const CallSnapshots& calls : lanes_) {
            sum += calls->size();
        }
        return sum;
    }

    // Calls `visit` with each of them. A call is valid as long as this object.
    template <typename Visit>
    void for_each(Visit visit) const {
        for (const CallSnapshots& calls : lanes_) {
            for (const CallSnapshot& call : *calls) {
                visit(call);
            }
        }
    }

  private:
    std::vector<CallSnapshots> lanes_;
};

}  // namespace qv::node
