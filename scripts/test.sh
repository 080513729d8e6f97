#!/usr/bin/env bash
# Builds and runs the tests of the project, from any folder.
#
#   scripts/test.sh                the release stage: all tests of the optimized build,
#                                  including those of the packages and the documents
#   scripts/test.sh --all          all stages, which is what CI runs
#   scripts/test.sh STAGE...       only these: format tidy release bare asan tsan fuzz
#
#   format    the sources are formatted as .clang-format says
#   tidy      the checks of .clang-tidy find nothing; runs in the processor time that others leave
#   release   the optimized build and its packages
#   bare      on a minimal Debian 12 that has nothing else: the demo runs from a checkout, and
#             the packages can be installed and used; runs beside the stages that follow
#   asan      the tests under the address and undefined behaviour sanitizers
#   tsan      the concurrent tests under the thread sanitizer
#   fuzz      every fuzz target replays its corpus and fuzzes for some seconds
#
# At the end, prints what was skipped and why, what failed with the command that runs just that
# again, and the line "N passed, N failed, N skipped". Exits with 1 if anything failed.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

ALL_STAGES=(format tidy release bare asan tsan fuzz)
FUZZ_SECONDS=${FUZZ_SECONDS:-5}
jobs=$(nproc)

# Lets ccache reuse what GCC compiled in another clone on this machine, except joined sources, which
# contain paths. The debug information then has the path of that clone, which does no harm here.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=true
passed=0 failed=0 skipped=0
beside=()  # The names of the checks that were started beside the stages, and their process groups.
groups=()
failures=()  # What failed; on the next line, the command that runs just that again.
skips=()     # What was skipped, and why.

say() { printf '\n== %s\n' "$*"; }

# fail NAME COMMAND: COMMAND runs just this again.
fail() {
    echo "FAILED   $1"
    failed=$((failed + 1))
    failures+=("$1"$'\n'"         $2")
}

skip() {
    echo "skipped  $1: $2"
    skipped=$((skipped + 1))
    skips+=("$1: $2")
}

# check NAME AGAIN COMMAND...: counts the outcome of one check that is a test by itself.
check() {
    local name=$1 again=$2
    shift 2
    if "$@"; then
        echo "ok       $name"
        passed=$((passed + 1))
    else
        fail "$name" "$again"
    fi
}

cxx_files() { git ls-files '*.h' '*.cpp'; }

format_clean() { cxx_files | xargs clang-format --dry-run -Werror; }

# Copies the output of a build to the file $1, and a line for each tenth of it to the terminal.
with_progress() {
    awk -v log_file="$1" '
        { print > log_file }
        match($0, /^\[[0-9]+\/[0-9]+\]/) {
            split(substr($0, 2, RLENGTH - 2), step, "/")
            tenth = int(10 * step[1] / step[2])
            if (tenth > shown) { shown = tenth; printf "build    %3d %%\n", 10 * tenth; fflush() }
        }'
}

configure_and_build() {
    local preset=$1
    cmake --preset "$preset" >"build/$preset-configure.log" 2>&1 ||
        { cat "build/$preset-configure.log"; return 1; }
    cmake --build --preset "$preset" -j "$jobs" 2>&1 | with_progress "build/$preset-build.log" ||
        { grep -E 'error|FAILED|warning' -A 5 "build/$preset-build.log" | head -n 60; return 1; }
}

fail_build() { fail "build of $1" "cmake --preset $1 && cmake --build --preset $1"; }

# run_preset PRESET AT_ONCE OPTION...: builds a preset, runs so many of its tests at once with these
# options of ctest, and counts each case.
run_preset() {
    local preset=$1 at_once=$2 results=$PWD/build/$1-results.xml
    shift 2
    if ! configure_and_build "$preset"; then
        fail_build "$preset"
        return
    fi
    rm -rf "$results" "build/$preset/cases"
    ctest --preset "$preset" -j "$at_once" --no-tests=error --output-junit "$results" "$@"
    local outcome=$? before=$failed counted=no kind first second third
    while IFS=$'\t' read -r kind first second third; do
        case $kind in
            failed) failures+=("$first"$'\n'"         $second") ;;
            skipped) skips+=("$first: $second") ;;
            counts)
                counted=yes
                passed=$((passed + first))
                failed=$((failed + second))
                skipped=$((skipped + third))
                ;;
        esac
    done < <(python3 scripts/test_results.py "$preset")
    if [ "$counted" = no ] || { [ "$outcome" -ne 0 ] && [ "$failed" -eq "$before" ]; }; then
        fail "$preset: ctest ended with $outcome" "ctest --preset $preset $*"
    fi
}

stage_format() { check format "scripts/test.sh format" format_clean; }

# Ends what still runs beside the stages, with all its processes.
end_beside() {
    local group
    for group in "${groups[@]}"; do
        kill -- "-$group" 2>/dev/null
    done
}
trap end_beside EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# run_beside NAME COMMAND...: starts the command in a process group of its own.
run_beside() {
    beside+=("$1")
    shift
    set -m
    "$@" &
    set +m
    groups+=($!)
}

# Tests and builds wait at times; tidy then uses the processors.
stage_tidy() {
    if [ "${stages[-1]}" = tidy ]; then
        check tidy "scripts/test.sh tidy" scripts/tidy.py
    else
        run_beside tidy try_beside tidy nice -n 19 scripts/tidy.py
    fi
}

# Most tests wait for most of their time, with sanitizers less.
stage_release() { run_preset release $((4 * jobs)); }
stage_asan() { run_preset asan $((3 * jobs)) -LE 'uninstrumented'; }
stage_tsan() { run_preset tsan $((2 * jobs)) -L 'concurrent'; }

# Fuzzes the built target $1, with the output and the exit code in files.
fuzz_target() {
    local status=0
    scripts/fuzz.sh --built --seconds "$FUZZ_SECONDS" "$1" >"build/fuzz-$1.log" 2>&1 || status=$?
    echo "$status" >"build/fuzz-$1.status"
}

fuzz_succeeded() {
    [ "$(cat "build/fuzz-$1.status")" = 0 ] || { cat "build/fuzz-$1.log"; return 1; }
}

# The targets are fuzzed in parallel, one on each processor.
stage_fuzz() {
    if ! configure_and_build fuzz; then
        fail_build fuzz
        return
    fi
    local names name running=()
    mapfile -t names < <(scripts/fuzz.sh --list)
    for name in "${names[@]}"; do
        while [ "${#running[@]}" -ge "$jobs" ]; do
            wait "${running[0]}"
            running=("${running[@]:1}")
        done
        fuzz_target "$name" &
        running+=($!)
    done
    wait "${running[@]}"
    for name in "${names[@]}"; do
        check "fuzz_$name" "scripts/fuzz.sh --seconds $FUZZ_SECONDS $name" fuzz_succeeded "$name"
    done
}

# try_beside NAME COMMAND...: runs the command, with its output and its exit code in files.
try_beside() {
    local file="build/${1// /-}" status=0
    shift
    rm -f "$file.status"
    "$@" >"$file.log" 2>&1 || status=$?
    echo "$status" >"$file.status"
}

# count_beside NAME AGAIN: counts what try_beside ran. Exit code 77 means that it cannot be done
# here. AGAIN is the command that runs it again.
count_beside() {
    local name=$1 again=$2 file="build/${1// /-}" status
    status=$(cat "$file.status" || echo 1)
    if [ "$status" -eq 77 ]; then
        skip "$name" "$(tail -n 1 "$file.log")"
        return
    fi
    [ "$status" -eq 0 ] || tail -n 40 "$file.log"
    check "$name" "$again" test "$status" -eq 0
}

DEMO_ON_A_BARE_MACHINE=(scripts/bare_machine.sh)
PACKAGES_ON_A_BARE_MACHINE=(tests/package/stand_alone_test.sh build/release)

# Starts to try the demo and the packages on a bare machine. Most of that is waiting for
# packages, so it runs beside the stages that follow, and is counted after the last of them.
stage_bare() {
    if ! configure_and_build release; then
        fail_build release
        return
    fi
    run_beside bare try_bare
}

try_bare() {
    try_beside "packages on a bare machine" "${PACKAGES_ON_A_BARE_MACHINE[@]}"
    try_beside "demo on a bare machine" "${DEMO_ON_A_BARE_MACHINE[@]}"
}

count_all_beside() {
    [ "${#beside[@]}" -gt 0 ] || return 0
    say "${beside[*]}, beside the others"
    wait
    local name
    for name in "${beside[@]}"; do
        case $name in
            tidy) count_beside tidy "scripts/test.sh tidy" ;;
            bare)
                count_beside "packages on a bare machine" "${PACKAGES_ON_A_BARE_MACHINE[*]}"
                count_beside "demo on a bare machine" "${DEMO_ON_A_BARE_MACHINE[*]}"
                ;;
        esac
    done
}

if [ "${1:-}" = --help ]; then
    sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"
    exit 0
fi
case ${1:-} in
    '') stages=(release) ;;
    --all) stages=("${ALL_STAGES[@]}") ;;
    *) stages=("$@") ;;
esac
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
count_all_beside
echo "all took $SECONDS s"

echo
[ "${#skips[@]}" -eq 0 ] || printf 'SKIPPED  %s\n' "${skips[@]}"
[ "$failed" -eq 0 ] || printf 'FAILED   %s\n' "${failures[@]}"
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
