// The receiver as one screen of a terminal: its calls with age, features, a level meter per
// side and loss, and the totals. A wide screen also shows the whole UUID, packets and the
// call's reference. An output. It makes text only; the owner of the terminal shows it.
// Belongs to one thread.
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

    // One frame: lines that fit the screen, each closed by "\r\n" but the last one. The
    // levels are those since the last frame.
    std::string frame(const NodeFigures& figures, Micros now, ScreenSize size);

  private:
    class LiveCall;

    std::vector<LiveCall*> oldest_first() const;
    std::vector<std::string> head(const NodeFigures& figures, Micros now);

    std::unordered_set<LiveCall*> calls_;  // Each takes itself out when its call is over.
    std::string last_file_error_;
    std::uint64_t last_received_ = 0;
    Micros last_time_{0};
};

// "AdR": A, D, R for audio activity, detection, recording where active, small letters
// where supported only, '-' where neither.
std::string feature_letters(media::features16_t features, Side side);

// A bar of `cells` cells: none filled at -60 dB, all at 0 dB.
std::string level_meter(double level_db, std::size_t cells);

}  // namespace qv::node
