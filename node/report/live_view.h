// The receiver as one screen of a terminal: its calls with age, features, a level meter a
// side and loss, and the totals. A wide screen also shows the whole UUID, packets and the
// call's reference. Makes text only; whoever owns the terminal shows it.
// Belongs to one thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "node/calls/call_table.h"
#include "node/calls/types.h"

namespace qv::node {

struct ScreenSize {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

// What the view shows beside the calls.
struct LiveTotals {
    std::string address;
    Micros uptime{0};
    std::uint64_t received = 0;
    std::uint64_t malformed = 0;
    std::uint64_t overflowed = 0;
};

class LiveView {
  public:
    // One frame: lines that fit the screen, each closed by "\r\n" but the last one. Takes
    // the recent levels of the calls.
    std::string frame(CallTable& calls, const LiveTotals& totals, Micros now, ScreenSize size);

  private:
    std::vector<std::string> head(const CallTable& calls, const LiveTotals& totals, Micros now);
    void note_file_errors(const std::vector<Call*>& calls);

    std::string last_file_error_;
    std::uint64_t last_received_ = 0;
    Micros last_time_{0};
};

// "AdR": A, D, R for audio activity, detection, recording where active, small letters
// where supported only, '-' where neither.
std::string feature_letters(media::features16_t features, Side side);

// `cells` cells, filled from -60 dB (none) to 0 dB (all).
std::string level_meter(double level_db, std::size_t cells);

}  // namespace qv::node
