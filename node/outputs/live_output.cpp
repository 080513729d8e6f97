#include "node/outputs/live_output.h"

#include <vector>

#include "node/report/text.h"

namespace qv::node {

namespace {

constexpr Micros FRAME{250'000};

}  // namespace

void LiveOutput::begin() {
    lines_.hold();
    terminal_.enter();
    view_.use_keys(terminal_.has_keys());
    view_.use_colour(Terminal::has_colour());
}

// A key is answered at once.
void LiveOutput::update(const NodeFigures& figures, Micros now) {
    const std::vector<Key> pressed = keys_.read(terminal_.read_keys());
    for (const Key& key : pressed) {
        view_.press(key);
    }
    if (!pressed.empty() || now - last_frame_ >= FRAME) {
        last_frame_ = now;
        view_.update(calls_());
        terminal_.show(view_.frame(figures, now, Terminal::size()));
    }
}

void LiveOutput::finish() {
    terminal_.leave();
    lines_.release();
    if (console_.lost_frames() != 0) {
        lines_.say("frames not shown",
                   grouped(console_.lost_frames()) + ": the terminal did not take them");
    }
}

}  // namespace qv::node
