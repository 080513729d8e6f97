// Shows the media node on one screen of a terminal: each call with age, features, audio activity, a
// level meter per side, loss and what it is about, and the totals. A wide screen also shows the
// whole UUID, the packets and the call reference. Calls with trouble come first. Keys scroll, sort
// and filter, and show one call whole.
//
// An output. It only composes text; the owner of the terminal displays it and passes on the keys.
// Belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/calls/level_meter.h"
#include "node/calls/types.h"
#include "node/report/figures.h"
#include "node/report/keys.h"

namespace qv::node {

struct ScreenSize {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

class LiveView : public CallListener {
  public:
    enum class Order : unsigned char { TROUBLE, LOSS, AGE };

    std::unique_ptr<CallListener> begin_call(Call& call) override;

    // Whether lines have colours, and whether the keys are named; off until set.
    void use_colour(bool colour) { colour_ = colour; }
    void use_keys(bool keys) { keys_ = keys; }

    // Acts on a key; the next frame shows it.
    void press(const Key& key);
    // Whether a key has asked for the end of the program since the last call.
    bool take_quit() { return std::exchange(quit_, false); }
    // The program ends when that is done; empty: it goes on. Shown in place of the keys.
    void set_ending(std::string waits_for);

    // Returns a frame: lines that fit the screen, each except the last one followed by "\r\n". The
    // levels are those since the last frame.
    std::string frame(const NodeFigures& figures, Micros now, ScreenSize size);

  private:
    class LiveCall;
    struct Line {
        std::string text;
        const char* style = "";  // A sequence of the terminal; empty for none.
    };
    using Lines = std::vector<Line>;

    std::vector<LiveCall*> sorted() const;
    Lines head(const NodeFigures& figures, Micros now);
    void add_list(Lines& lines, Micros now, ScreenSize size);
    void add_call(Lines& lines, LiveCall& call, Micros now, ScreenSize size);
    std::string key_line() const;
    std::string place_text(std::size_t first, std::size_t end, std::size_t matching) const;
    const char* style_of(const LiveCall& call) const;
    static std::string joined(const Lines& lines, ScreenSize size);
    LiveCall* selected_call() const;
    void select(const std::vector<LiveCall*>& all);
    void press_in_filter(const Key& key);
    void show_whole();
    void step_back();
    void press_letter(char letter);
    void move(std::ptrdiff_t rows);

    std::unordered_set<LiveCall*> calls_;  // Each removes itself when its call has ended.
    std::string last_file_error_;
    std::uint64_t last_received_ = 0;
    Micros last_time_{0};

    bool colour_ = false;
    bool keys_ = false;
    bool quit_ = false;
    std::string ending_;
    Order order_ = Order::TROUBLE;
    std::string filter_;
    bool typing_ = false;           // The filter.
    bool whole_ = false;            // One call fills the screen,
    std::size_t whole_top_ = 0;     // from this line on.
    std::optional<Uuid> selected_;  // A call of the list; nothing before the first key.
    std::size_t selected_row_ = 0;  // Where it was; the next call takes its place.
    std::ptrdiff_t moved_ = 0;      // By keys since the last frame, in rows.
    std::size_t top_ = 0;           // The first row of the list that is shown,
    std::size_t room_ = 1;          // and how many there are.
};

// For example "AdR". A, D and R stand for audio activity, detection and recording: a capital if
// active, a small letter if only supported, '-' if neither.
std::string feature_letters(media::features16_t features, Side side);

// Returns a bar of `cells` cells: none is filled at -60 dB, all at 0 dB.
std::string level_meter(double level_db, std::size_t cells);

}  // namespace qv::node
