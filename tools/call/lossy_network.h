// A network between the module and the media node that loses, duplicates, reorders and delays
// datagrams. It also notices when no program listens at the media node's address.
//
// The module sends to address(); a thread of its own passes the datagrams on. What happens to a
// packet of a call's side depends only on the seed, the number of the call and the number of the
// packet, so a run with the same seed treats it alike. Belongs to one thread; the figures are
// known at the end.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <queue>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/call/schedule.h"
#include "tools/udp_socket.h"

namespace qv::tools::call {

struct NetworkPlan {
    double lose_percent = 0;
    double duplicate_percent = 0;
    unsigned reorder_packets = 0;  // a data packet comes up to so many packets later
    Span delay_ms;                 // drawn for each datagram
    bool check = false;            // only pass on, and hear whether somebody listens

    bool wanted() const {
        return lose_percent > 0 || duplicate_percent > 0 || reorder_packets > 0 ||
               delay_ms.max > 0 || check;
    }
};

struct NetworkFigures {
    bool used = false;
    std::string media_node;
    std::uint64_t datagrams = 0;  // that the module sent
    std::uint64_t lost = 0;
    std::uint64_t lost_data = 0;  // of these, data packets
    std::uint64_t duplicated = 0;
    std::uint64_t reordered = 0;   // passed on after one that was sent later, of the same side
    std::uint64_t overflowed = 0;  // that this network could not take in fast enough
    std::uint64_t refused = 0;     // nobody listens at the media node's address
};

class LossyNetwork {
  public:
    using Clock = std::chrono::steady_clock;

    // Throws std::system_error if there is no socket.
    LossyNetwork(const NetworkPlan& plan, const sockaddr_in& media_node, std::uint64_t seed);
    ~LossyNetwork();
    LossyNetwork(const LossyNetwork&) = delete;
    LossyNetwork& operator=(const LossyNetwork&) = delete;

    // Where the module has to send to: "127.0.0.1:PORT".
    std::string address() const;

    void start();
    // Passes on what is still to come, and ends. Returns the figures.
    NetworkFigures finish();

  private:
    using Datagram = std::vector<unsigned char>;
    struct Held {
        std::uint64_t release;  // with the packet of this number
        std::uint64_t number;
        Clock::duration delay;  // from then on
        Datagram datagram;
    };
    // The data packets of a side, or the other packets of a call.
    struct Stream {
        std::uint64_t random = 0;
        std::uint64_t packets = 0;
        std::uint64_t latest_sent = 0;
        Clock::time_point latest;
        std::vector<Held> held;
    };
    using StreamName = std::pair<std::string, unsigned>;  // UUID, and which of its streams
    struct Delayed {
        Clock::time_point due;
        std::uint64_t order;  // of those that are due at the same time
        Datagram datagram;
        bool operator>(const Delayed& other) const {
            return std::tie(due, order) > std::tie(other.due, other.order);
        }
    };

    void run();
    bool receive_all();
    void receive(const Datagram& datagram);
    Stream& stream_of(const StreamName& name);
    Held draw_copy(Stream& stream) const;
    void release(Stream& stream, std::uint64_t number);
    void release_quiet(Clock::time_point now);
    void pass_on(Stream& stream, const Held& held);
    void send_due(Clock::time_point now);
    void send(const Datagram& datagram);
    void note_error();

    const NetworkPlan plan_;
    const std::uint64_t seed_;
    UdpSocket inside_;  // Faces the module.
    UdpSocket outside_;
    NetworkFigures figures_;
    std::map<StreamName, Stream> streams_;
    std::map<std::string, std::uint64_t> calls_;  // their numbers
    std::uint64_t next_call_ = 1;
    std::priority_queue<Delayed, std::vector<Delayed>, std::greater<>> delayed_;
    std::uint64_t next_order_ = 0;
    std::atomic<bool> finishing_{false};
    std::thread thread_;
};

}  // namespace qv::tools::call
