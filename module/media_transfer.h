// The sender: turns the events of a call into datagrams to the call's media node.
//
// One per module, owned by the module context beside the socket it sends through. It
// keeps no state of its own: the counters it advances live in the call's context. The
// host's media threads and API threads call it, many calls at once; it takes no lock,
// allocates nothing for a packet and sends each datagram with one system call.
//
// Every operation returns whether its packets left the socket; the socket has logged
// why not, and nothing is sent again. `session` only files log lines under the call.
#pragma once

#include <switch.h>

#include <cstdint>

#include "module/app_context.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

class MediaTransfer {
  public:
    // `socket` outlives the sender.
    explicit MediaTransfer(net::Socket* socket) : socket_(socket) {}

    // Waits up to a quarter of a second for room in the send buffer: without its start packet a
    // call is not tapped, and datagrams to another call's slow media node may fill the buffer.
    // Call it before `media_start`, without a lock.
    void wait_to_start() const;

    // Sends the start packet; false also when the call reference is too long for it.
    bool media_start(switch_core_session_t* session, const AppContext& context)
        QV_REQUIRES(context.context_lock);

    // Sends one frame of the direction `leg` (media::READ_LEG or media::WRITE_LEG) in as
    // many data packets as it takes; a null frame is no frame. After a failure the rest
    // of the frame is dropped. The only writer of the leg's counters.
    bool media_data(switch_core_session_t* session, AppContext& context, std::uint8_t leg,
                    const switch_frame_t* frame);

    // Sends the requested features as a control packet.
    bool media_features_update(switch_core_session_t* session, const AppContext& context)
        QV_REQUIRES(context.context_lock);

    bool media_terminate(switch_core_session_t* session, const AppContext& context);

  private:
    net::Socket* socket_;
};

}  // namespace qv::freeswitch
