// Shows the media node on one screen of a terminal: each call with age, features, a level meter per
// side and loss, and the totals. A wide screen also shows the whole UUID, the packets and the call
// reference. An output. It only composes text; the owner of the terminal displays it. Belongs to
// one thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/calls/level_meter.h"
#include "node/calls/types.h"
#include "node/report/figures.h"

namespace qv::node {

struct ScreenSize {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

class LiveView : public CallListener {
  public:
    std::unique_ptr<CallListener> begin_call(Call& call) override;

    // Returns a frame: lines that fit the screen, each except the last one followed by "\r\n". The
    // levels are those since the last frame.
    std::string frame(const NodeFigures& figures, Micros now, ScreenSize size);

  private:
    class LiveCall;

    std::vector<LiveCall*> oldest_first() const;
    std::vector<std::string> head(const NodeFigures& figures, Micros now);

    std::unordered_set<LiveCall*> calls_;  // Each removes itself when its call has ended.
    std::string last_file_error_;
    std::uint64_t last_received_ = 0;
    Micros last_time_{0};
};

// For example "AdR". A, D and R stand for audio activity, detection and recording: a capital if
// active, a small letter if only supported, '-' if neither.
std::string feature_letters(media::features16_t features, Side side);

// Returns a bar of `cells` cells: none is filled at -60 dB, all at 0 dB.
std::string level_meter(double level_db, std::size_t cells);

}  // namespace qv::node
