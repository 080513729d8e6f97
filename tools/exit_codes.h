// The exit codes of all programs. The help of each program says what causes them.
#pragma once

namespace qv::tools {

constexpr int EXIT_FINE = 0;
constexpr int EXIT_TROUBLE = 1;   // Something failed during the run.
constexpr int EXIT_USAGE = 2;     // Wrong command line, or a wrong file that it names.
constexpr int EXIT_NO_START = 3;  // A resource that the program needs cannot be used.

}  // namespace qv::tools
