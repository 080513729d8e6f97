// The terminal on the standard output while the live view owns it. Uses the alternate screen, so
// that the previous contents remain, and reads keys without echo if the standard input is the same
// terminal. However the program ends, short of SIGKILL, the terminal is as it was before. Belongs
// to one thread; there is only one.
#pragma once

#include <string>

#include "node/report/console.h"
#include "node/report/live_view.h"

namespace qv::node {

class Terminal {
  public:
    // Writes to the console, which must outlive the terminal.
    explicit Terminal(Console& console) : console_(console) {}
    ~Terminal() { leave(); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Whether the standard output is a terminal.
    static bool present();
    // The size of the terminal; the usual size if the terminal does not report one.
    static ScreenSize size();
    // Whether the terminal shows colours, and the user wants them: TERM and NO_COLOR.
    static bool has_colour();

    void enter();
    void show(const std::string& frame);
    void leave();

    // Whether keys can be read; known after enter().
    bool has_keys() const { return has_keys_; }
    // Returns what the keys that were pressed since the last time have sent. Does not wait.
    std::string read_keys();

  private:
    Console& console_;
    bool entered_ = false;
    bool has_keys_ = false;
};

}  // namespace qv::node
