#include "node/report/terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace qv::node {

namespace {

constexpr const char* ENTER_SCREEN = "\x1b[?1049h\x1b[?25l\x1b[2J";  // Without a cursor.
constexpr char LEAVE_SCREEN[] = "\x1b[0m\x1b[?25h\x1b[?1049l";
constexpr const char* TOP_LEFT = "\x1b[H";
constexpr const char* CLEAR_BELOW = "\x1b[J";

// The signals that end the program at once.
constexpr std::array<int, 6> FATAL_SIGNALS = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGQUIT};

// Global, because the handler of fatal signals gets no object.
termios settings_before;
volatile std::sig_atomic_t settings_changed = 0;

// Calls only functions that a signal handler may call.
void restore_and_die(int number) {
    if (settings_changed != 0) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &settings_before);
    }
    // A terminal that is stopped would keep the program from ending.
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    if (::poll(&output, 1, 0) == 1) {
        [[maybe_unused]] const ssize_t written =
            ::write(STDOUT_FILENO, LEAVE_SCREEN, sizeof LEAVE_SCREEN - 1);
    }
    ::signal(number, SIG_DFL);
    ::raise(number);
}

void handle_fatal_signals(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : FATAL_SIGNALS) {
        sigaction(number, &action, nullptr);
    }
}

// A program in the background that touches the terminal would be stopped.
bool is_in_foreground() {
    return ::isatty(STDIN_FILENO) != 0 && ::tcgetpgrp(STDIN_FILENO) == ::getpgrp();
}

// Keys come one by one and are not echoed. Ctrl-C still interrupts; Ctrl-Z and Ctrl-S do nothing,
// because a program that is stopped, or waits for its terminal, loses packets.
bool take_keys() {
    if (!is_in_foreground() || ::tcgetattr(STDIN_FILENO, &settings_before) != 0) {
        return false;
    }
    termios settings = settings_before;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    settings.c_cc[VSUSP] = _POSIX_VDISABLE;
    settings_changed = 1;
    return ::tcsetattr(STDIN_FILENO, TCSANOW, &settings) == 0;
}

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

bool Terminal::has_colour() {
    // Nothing in the program changes the environment.
    const char* kind = std::getenv("TERM");          // NOLINT(concurrency-mt-unsafe)
    const char* unwanted = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
    return kind != nullptr && *kind != '\0' && std::strcmp(kind, "dumb") != 0 &&
           (unwanted == nullptr || *unwanted == '\0');
}

void Terminal::enter() {
    entered_ = true;
    handle_fatal_signals(restore_and_die);
    has_keys_ = take_keys();
    console_.show(ENTER_SCREEN);
}

void Terminal::show(const std::string& frame) {
    console_.show_frame(TOP_LEFT + frame + CLEAR_BELOW);
}

void Terminal::leave() {
    if (!entered_) {
        return;
    }
    entered_ = false;
    console_.show(LEAVE_SCREEN);
    if (settings_changed != 0 && is_in_foreground()) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &settings_before);
    }
    settings_changed = 0;
    has_keys_ = false;
    handle_fatal_signals(SIG_DFL);
}

std::string Terminal::read_keys() {
    std::array<char, 256> bytes{};
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (!has_keys_ || ::poll(&input, 1, 0) != 1 || !is_in_foreground()) {
        return {};
    }
    const ssize_t size = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (size < 0 || (size == 0 && (input.revents & POLLHUP) != 0)) {
        has_keys_ = false;  // The terminal is gone.
    }
    return {bytes.data(), static_cast<std::size_t>(size > 0 ? size : 0)};
}

}  // namespace qv::node
