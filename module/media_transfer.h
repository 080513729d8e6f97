// The sender: turns the events of a call into datagrams to the call's media node.
//
// There is one per module; the module context owns it, and the socket that it sends through.
// It has no state of its own: the counters that it advances are in the call's context. The
// host's media threads and API threads use it for many calls at once. It takes no lock,
// allocates nothing for a packet and sends each datagram with one system call.
//
// Every operation returns whether its packets were sent. If not, the socket has logged the
// reason; nothing is sent again. `session` is used only to assign log lines to the call.
#pragma once

#include <switch.h>

#include <cstdint>

#include "module/app_context.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

class MediaTransfer {
  public:
    // `socket` must outlive the sender.
    explicit MediaTransfer(net::Socket* socket) : socket_(socket) {}

    // Waits up to 250 ms for room in the send buffer. A call is not tapped if its start packet
    // cannot be sent, and datagrams to another call's slow media node may fill the buffer. Call
    // it before `media_start`, without holding a lock.
    void wait_to_start() const;

    // Sends the start packet. Also returns false if the call reference does not fit into it.
    bool media_start(switch_core_session_t* session, const AppContext& context)
        QV_REQUIRES(context.context_lock);

    // Sends one frame of the direction `leg` (media::READ_LEG or media::WRITE_LEG) in as many
    // data packets as it needs. Sends nothing for a null frame and returns true. If a packet
    // cannot be sent, the rest of the frame is dropped. Nothing else writes the leg's counters.
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
