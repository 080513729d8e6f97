// The terminal on the standard output, while the live view has it: its alternate screen, which
// leaves what was there before untouched. Belongs to one thread.
#pragma once

#include <ostream>
#include <string>

#include "node/report/live_view.h"

namespace qv::node {

class Terminal {
  public:
    // Writes to `out`, which must outlive the terminal.
    explicit Terminal(std::ostream& out) : out_(out) {}

    // Whether the standard output is a terminal.
    static bool present();
    // Of the terminal; the usual size where it does not say.
    static ScreenSize size();

    void enter();
    void show(const std::string& frame);
    void leave();

  private:
    std::ostream& out_;
};

}  // namespace qv::node
