// One page that listens to one call: takes the audio of the call from its record and makes the
// frames that the page plays. Belongs to the thread of the page.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "node/calls/types.h"
#include "node/web/audio_tap.h"
#include "node/web/call_record.h"

namespace qv::node::web {

class Listening {
  public:
    // From now on, listens to these sides of the call.
    Listening(std::shared_ptr<CallRecord> record, const std::vector<Side>& sides);
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;
    ~Listening();

    const CallRecord& record() const { return *record_; }
    // Returns the frames of what has come since the last call of this function. docs/node.md
    // describes their layout.
    std::vector<std::string> take_frames(Micros now);
    // How long before `now` the newest sample of the latest frames came.
    Micros delay() const { return delay_; }

  private:
    static constexpr std::size_t MOST_SAMPLES = 4096;  // Of a frame.

    void add_frames(Side side, AudioTap& tap, Micros now, std::vector<std::string>& frames);

    const std::shared_ptr<CallRecord> record_;
    std::array<std::shared_ptr<AudioTap>, SIDE_COUNT> taps_;  // Null where nobody listens.
    Micros delay_{0};
};

}  // namespace qv::node::web
