// The exit codes of all programs; each program's help says what leads to them.
#pragma once

namespace qv::tools {

constexpr int EXIT_FINE = 0;
constexpr int EXIT_TROUBLE = 1;   // Something failed during the run.
constexpr int EXIT_USAGE = 2;     // The command line, or a file that it names.
constexpr int EXIT_NO_START = 3;  // What the program needs for its work cannot be used.

}  // namespace qv::tools
