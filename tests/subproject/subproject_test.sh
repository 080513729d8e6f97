#!/usr/bin/env bash
# Makes the project a part of another one: it must leave the other project's build type,
# installation and packages alone, offer it the wire format, and stop its build at no warning.
#
#   subproject_test.sh COMPILER
set -uo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
compiler=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$source_dir/tests/support/checks.sh"
nothing_in() { [ -z "$(find "$1" -type f 2>/dev/null)" ]; }

mkdir "$work/outer"
cat >"$work/outer/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(outer LANGUAGES CXX)
add_subdirectory($source_dir quorvane)
if(NOT TARGET mod_quorvane)
  message(FATAL_ERROR "the module is missing")
endif()
add_executable(receiver receiver.cpp)
target_link_libraries(receiver PRIVATE quorvane::quorvane)
END
echo '#include <quorvane/media_packet.h>
int main() { return qv::media::UUID_SIZE == 16 ? 0 : 1; }' >"$work/outer/receiver.cpp"
cmake -S "$work/outer" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" \
    -DQUORVANE_HOST=embedded >"$work/log" 2>&1 || {
    cat "$work/log"
    exit 1
}
commands=$work/build/compile_commands.json
expect "the module is compiled" grep -q mod_quorvane.cpp "$commands"
expect "warnings are no errors" sh -c "! grep -q -e -Werror '$commands'"
expect "the header can be used" cmake --build "$work/build" --target receiver
expect "no build type is chosen" grep -qx 'CMAKE_BUILD_TYPE:STRING=' "$work/build/CMakeCache.txt"
expect "the tools are not built" grep -qx 'QUORVANE_TOOLS:BOOL=OFF' "$work/build/CMakeCache.txt"
expect "no package is described" test ! -e "$work/build/CPackConfig.cmake"
DESTDIR=$work/installed cmake --install "$work/build" >"$work/log" 2>&1
expect "nothing is installed" nothing_in "$work/installed"
exit $((failures > 0))
