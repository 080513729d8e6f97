// Shows the media node on one screen of a terminal: each call with age, features, audio activity, a
// level meter per side, loss and state, and the totals. A wide screen also shows the whole UUID,
// the packets and the call reference. Calls with trouble come first. Keys scroll, sort and filter,
// and show one call whole.
//
// It only composes text from snapshots of the calls; the owner of the terminal displays it and
// passes on the keys. Belongs to one thread, but any thread may report a file error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "node/calls/types.h"
#include "node/report/call_snapshot.h"
#include "node/report/figures.h"
#include "node/report/keys.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

struct ScreenSize {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

class LiveView {
  public:
    enum class Order : unsigned char { TROUBLE, LOSS, AGE };

    // From now on these are the calls.
    void update(AllCalls calls) { calls_ = std::move(calls); }

    // The latest error stays on the screen. Any thread may call it.
    void report_file_error(const std::string& error) QV_EXCLUDES(mutex_);

    // Whether lines have colours, and whether the keys are named; off until set.
    void use_colour(bool colour) { colour_ = colour; }
    void use_keys(bool keys) { keys_ = keys; }

    // Acts on a key; the next frame shows it.
    void press(const Key& key);
    // Whether a key has asked for the end of the program since the last call.
    bool take_quit() { return std::exchange(quit_, false); }
    // The program ends when that is done; empty: it goes on. Shown in place of the keys.
    void set_ending(std::string waits_for);

    // Returns a frame: lines that fit the screen, each except the last one followed by "\r\n".
    std::string frame(const NodeFigures& figures, Micros now, ScreenSize size);

  private:
    struct Line {
        std::string text;
        const char* style = "";  // A sequence of the terminal; empty for none.
    };
    using Lines = std::vector<Line>;

    using Rows = std::vector<const CallSnapshot*>;

    Rows sorted() const;
    Lines head(const NodeFigures& figures, Micros now);
    void add_list(Lines& lines, Micros now, ScreenSize size);
    void add_call(Lines& lines, const CallSnapshot& call, Micros now, ScreenSize size);
    std::string key_line() const;
    std::string place_text(std::size_t first, std::size_t end, std::size_t matching) const;
    const char* style_of(const CallSnapshot& call) const;
    static std::string joined(const Lines& lines, ScreenSize size);
    const CallSnapshot* selected_call() const;
    void select(const Rows& all);
    std::string last_file_error() QV_EXCLUDES(mutex_);
    void press_in_filter(const Key& key);
    void show_whole();
    void step_back();
    void press_letter(char letter);
    void move(std::ptrdiff_t rows);

    AllCalls calls_;
    Mutex mutex_;
    std::string last_file_error_ QV_GUARDED_BY(mutex_);
    std::uint64_t last_received_ = 0;
    Micros last_time_{0};

    bool colour_ = false;
    bool keys_ = false;
    bool quit_ = false;
    std::string ending_;
    Order order_ = Order::TROUBLE;
    std::string filter_;
    bool typing_ = false;           // The filter.
    bool whole_ = false;            // One call fills the screen.
    std::size_t whole_top_ = 0;     // The first of its lines that is shown.
    std::optional<Uuid> selected_;  // A call of the list; nothing before the first key.
    std::size_t selected_row_ = 0;  // Where it was; the next call takes its place.
    std::ptrdiff_t moved_ = 0;      // By keys since the last frame, in rows.
    std::size_t top_ = 0;           // The first row of the list that is shown.
    std::size_t room_ = 1;          // The rows that are shown.
};

// For example "AdR". A, D and R stand for audio activity, detection and recording: a capital if
// active, a small letter if only supported, '-' if neither.
std::string feature_letters(media::features16_t features, Side side);

// Returns a bar of `cells` cells: none is filled at -60 dB, all at 0 dB.
std::string level_meter(double level_db, std::size_t cells);

}  // namespace qv::node
