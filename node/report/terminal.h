// The terminal on the standard output while the live view owns it. Uses the alternate screen, so
// that the previous contents remain. Belongs to one thread.
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
    // The size of the terminal; the usual size if the terminal does not report one.
    static ScreenSize size();

    void enter();
    void show(const std::string& frame);
    void leave();

  private:
    std::ostream& out_;
};

}  // namespace qv::node
