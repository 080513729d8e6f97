#include "node/report/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace qv::node {

namespace {

constexpr const char* ENTER_SCREEN = "\x1b[?1049h\x1b[?25l\x1b[2J";  // Without a cursor.
constexpr const char* LEAVE_SCREEN = "\x1b[?25h\x1b[?1049l";
constexpr const char* TOP_LEFT = "\x1b[H";
constexpr const char* CLEAR_BELOW = "\x1b[J";

}  // namespace

bool Terminal::present() {
    return isatty(STDOUT_FILENO) != 0;
}

ScreenSize Terminal::size() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {};
    }
    return {size.ws_col, size.ws_row};
}

void Terminal::enter() {
    out_ << ENTER_SCREEN << std::flush;
}

void Terminal::show(const std::string& frame) {
    out_ << TOP_LEFT << frame << CLEAR_BELOW << std::flush;
}

void Terminal::leave() {
    out_ << LEAVE_SCREEN << std::flush;
}

}  // namespace qv::node
