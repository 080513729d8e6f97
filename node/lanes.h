// All lanes of the media node, as one. With one thread, the only lane runs on the event loop of the
// program. With more, each lane has a thread of its own, and the system spreads the calls over
// their sockets, which share one port.
//
// Belongs to the thread of the program's event loop.
#pragma once

#include <netinet/in.h>

#include <asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "node/lane.h"
#include "node/lane_thread.h"
#include "node/report/figures.h"

namespace qv::node {

class Lanes {
  public:
    // `count` is at least 1. With 1, the lane runs on `loop`.
    Lanes(asio::io_context& loop, std::size_t count);
    // Stops the threads at once, unless stop() has done it.
    ~Lanes();
    Lanes(const Lanes&) = delete;
    Lanes& operator=(const Lanes&) = delete;

    std::size_t count() const { return only_ != nullptr ? 1 : threads_.size(); }
    // Not between start() and stop(), unless it is the only one.
    Lane& lane(std::size_t number);

    // Opens the port, with buffers of `buffer_bytes` for all lanes together. Returns what went
    // wrong, or an empty text.
    std::string open_port(const sockaddr_in& address, int buffer_bytes);
    std::uint16_t port() { return lane(0).receiver().port(); }
    // What the system granted for all lanes together.
    std::uint64_t granted_buffer() const { return granted_buffer_; }

    // Starts to receive. All lanes must have opened their calls.
    void start();
    // Call it several times a second. Throws what ended a thread, once.
    void tick(Micros now);
    // Receives no more, and ends all calls. Those whose files are not complete wait for
    // report_ends(). Throws what ended a thread, unless tick() has done it.
    void stop();
    // Reports the ends of calls whose files are complete now. Returns whether all are reported.
    bool report_ends();

    // Of the latest tick.
    LaneFigures figures();
    std::uint64_t calls_ended();

  private:
    std::unique_ptr<Lane> only_;  // Null if there are several lanes: those are in threads_.
    std::vector<std::unique_ptr<LaneThread>> threads_;
    std::uint64_t granted_buffer_ = 0;
};

}  // namespace qv::node
