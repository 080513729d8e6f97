#!/usr/bin/env bash
# Builds and runs every test of the project, from any folder.
#
#   scripts/test.sh                all stages
#   scripts/test.sh STAGE...       only these: format tidy release asan tsan fuzz bare
#
#   format    the sources are formatted as .clang-format says
#   tidy      the checks of .clang-tidy find nothing
#   release   what is shipped: all tests, packages and documents included
#   asan      the tests under the address and undefined behaviour sanitizers
#   tsan      the concurrent tests under the thread sanitizer
#   fuzz      every fuzz target replays its corpus and fuzzes for some seconds
#   bare      the demo runs on a minimal Debian 12 that has nothing but the checkout
#
# Ends with the names of what failed, the line "N passed, N failed, N skipped" and exit
# code 1 if any failed.
# A tool that cannot be had (a real FreeSWITCH, say) is skipped and said so.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

ALL_STAGES=(format tidy release asan tsan fuzz bare)
FUZZ_SECONDS=${FUZZ_SECONDS:-5}
jobs=$(nproc)

# Another clone of the project on this machine has compiled the same before; its path in
# the debug information does no harm here.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=true
passed=0 failed=0 skipped=0
failures=()  # What failed, by name: the output is long.

say() { printf '\n== %s\n' "$*"; }

fail() {
    echo "FAILED   $1"
    failed=$((failed + 1))
    failures+=("$1")
}

# Counts the outcome of one check that is a test by itself.
check() {
    local name=$1
    shift
    if "$@"; then
        echo "ok       $name"
        passed=$((passed + 1))
    else
        fail "$name"
    fi
}

cxx_files() { git ls-files '*.h' '*.cpp'; }

format_clean() { cxx_files | xargs clang-format --dry-run -Werror; }

configure_and_build() {
    local preset=$1
    shift
    cmake --preset "$preset" "$@" >"build/$preset-configure.log" 2>&1 ||
        { cat "build/$preset-configure.log"; return 1; }
    cmake --build --preset "$preset" -j "$jobs" >"build/$preset-build.log" 2>&1 ||
        { grep -E 'error|FAILED|warning' -A 5 "build/$preset-build.log" | head -n 60; return 1; }
}

# The number that attribute $2 has in the results file $1.
result() { grep -o -m1 "$2=\"[0-9]*\"" "$1" | head -n 1 | grep -o '[0-9]*'; }

# The names of the tests that failed, from the results file $1.
failed_tests() { sed -n 's/.*<testcase name="\([^"]*\)".* status="fail".*/\1/p' "$1"; }

# Builds a preset and counts each of its tests.
run_preset() {
    local preset=$1 results=$PWD/build/$1-results.xml
    shift
    if ! configure_and_build "$preset"; then
        fail "build of $preset"
        return
    fi
    rm -f "$results"
    ctest --preset "$preset" -j "$jobs" --no-tests=error --output-junit "$results" "$@"
    if [ ! -s "$results" ]; then
        fail "$preset: no results"
        return
    fi
    local tests bad not_run name
    tests=$(result "$results" tests)
    bad=$(result "$results" failures)
    not_run=$(($(result "$results" skipped) + $(result "$results" disabled)))
    passed=$((passed + tests - bad - not_run))
    failed=$((failed + bad))
    skipped=$((skipped + not_run))
    while read -r name; do
        failures+=("$preset: $name")
    done < <(failed_tests "$results")
}

tidy_clean() {
    cmake --preset tidy >build/tidy-configure.log 2>&1 || { cat build/tidy-configure.log; return 1; }
    cmake --build build/tidy --target build_identifier >/dev/null || return 1
    # The tools are read without the analyzer: their libraries' headers would keep it busy
    # for most of the time that all tests take.
    lint() { xargs -P "$jobs" -n 2 clang-tidy -p build/tidy --quiet "$@" 2>>build/tidy-errors.log; }
    : >build/tidy-errors.log
    git ls-files 'quorvane_lib/*.cpp' 'module/*.cpp' 'host/*.cpp' | lint &&
        git ls-files 'node/*.cpp' 'tools/*.cpp' | lint --checks=-clang-analyzer-*
}

stage_format() { check "format" format_clean; }
stage_tidy() { check "tidy" tidy_clean; }
stage_release() { run_preset release; }
stage_asan() { run_preset asan -LE 'uninstrumented'; }
stage_tsan() { run_preset tsan -L 'concurrent'; }
stage_fuzz() {
    if ! configure_and_build fuzz; then
        fail "build of fuzz"
        return
    fi
    local target
    for target in build/fuzz/fuzz/fuzz_*; do
        [ -x "$target" ] && [ -f "$target" ] || continue
        check "$(basename "$target")" scripts/fuzz.sh --seconds "$FUZZ_SECONDS" "$(basename "$target")"
    done
}
# The demo on a machine with nothing but the checkout, where one can be made.
stage_bare() {
    local status=0
    scripts/bare_machine.sh >build/bare.log 2>&1 || status=$?
    case $status in
        77)
            echo "skipped  demo on a bare machine: $(tail -n 1 build/bare.log)"
            skipped=$((skipped + 1))
            ;;
        0) check "demo on a bare machine" true ;;
        *)
            tail -n 40 build/bare.log
            fail "demo on a bare machine"
            ;;
    esac
}

if [ "${1:-}" = --help ]; then
    sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"
    exit 0
fi
stages=("${@:-${ALL_STAGES[@]}}")
[ $# -gt 0 ] || stages=("${ALL_STAGES[@]}")
for stage in "${stages[@]}"; do
    if [[ " ${ALL_STAGES[*]} " != *" $stage "* ]]; then
        echo "test: unknown stage '$stage': one of ${ALL_STAGES[*]}" >&2
        exit 2
    fi
done

mkdir -p build
scripts/setup.sh || exit 1
for stage in "${stages[@]}"; do
    say "$stage"
    started=$SECONDS
    "stage_$stage"
    echo "$stage took $((SECONDS - started)) s"
done

echo
[ "$failed" -eq 0 ] || printf 'FAILED   %s\n' "${failures[@]}"
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
