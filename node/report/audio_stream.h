// An output: hands the audio of all calls to the publisher, as it is put in order, in chunks of a
// set length.
//
// A chunk is cut short by a gap, a pause, a change of the sample rate and the end of the call, and
// if no audio comes for the length of a chunk. Until the sample rate of a side is known, its audio
// is held back. Any thread may call it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "node/calls/call_listener.h"
#include "node/engine/publisher.h"

namespace qv::node {

class AudioStream : public CallListener {
  public:
    // The publisher must outlive this object.
    AudioStream(Publisher& publisher, int chunk_ms) : publisher_(publisher), chunk_ms_(chunk_ms) {}

    std::unique_ptr<CallListener> begin_call(Call& call) override;

  private:
    Publisher& publisher_;
    const int chunk_ms_;
    std::atomic<std::uint64_t> calls_{0};
};

}  // namespace qv::node
