// Helpers of the benchmarks: calls, a destination, frames.
//
// A benchmark owns what it makes and chooses the threads that use it.
#pragma once

#include <netinet/in.h>
#include <switch.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "module/app_context.h"
#include "module/media_transfer.h"
#include "quorvane_lib/net_socket.h"

namespace qv::bench {

// A UDP socket on loopback that nobody reads. When its buffer is full, the system drops the
// datagrams only after it has done the whole work of sending.
class Sink {
  public:
    Sink();
    ~Sink();
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    const sockaddr_in& address() const { return address_; }

  private:
    int descriptor_;
    sockaddr_in address_{};
};

// A frame of `size` bytes as the host delivers it, with a codec.
class Frame {
  public:
    explicit Frame(std::uint32_t size);
    const switch_frame_t* get() const { return &frame_; }

  private:
    std::vector<unsigned char> audio_;
    switch_codec_implementation_t implementation_{};
    switch_codec_t codec_{};
    switch_frame_t frame_{};
};

// `count` configured contexts that stream to `node`.
std::vector<std::unique_ptr<freeswitch::AppContext>> make_contexts(std::size_t count,
                                                                   const sockaddr_in& node);

// An open transfer socket and the sender on top of it.
struct Sender {
    Sender() { socket.open(0, 0); }

    net::Socket socket;
    freeswitch::MediaTransfer transfer{&socket};
};

// The main function of a benchmark program. It runs an embedded host for the lines that the
// module logs; the host keeps none of them.
int run_benchmarks(int argc, char** argv);

}  // namespace qv::bench
