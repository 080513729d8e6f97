#!/usr/bin/env bash
# Builds and runs the benchmarks, prints one table with the results and the project's goals,
# and writes the results as JSON to build/bench/results.json.
#
#   scripts/bench.sh           all benchmarks
#   scripts/bench.sh --quick   shorter runs, for a first look
#
# Every benchmark runs several times; the median of its runs counts. The runs of benchmarks
# without a host are interleaved, so that a short disturbance affects only a few runs of each.
# Those with a host run in order of size, because a host with 10,000 calls fragments the heap
# for the runs after it.
#
# A missed goal is reported, but is not an error, because timings vary between machines. Run
# the benchmarks on an otherwise idle machine.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

seconds=0.1 runs=9
case ${1:-} in
    '') ;;
    --help) sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"; exit 0 ;;
    --quick) seconds=0.02 runs=3 ;;
    *) echo "bench: unknown argument '$1'" >&2; exit 2 ;;
esac

scripts/setup.sh
build=$PWD/build/bench
mkdir -p "$build"
{
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVANE_BENCH=ON \
        -DQUORVANE_TOOLS=OFF -DQUORVANE_HOST=embedded &&
    cmake --build "$build" -j "$(nproc)"
} >"$build/build.log" 2>&1 || { tail -n 40 "$build/build.log"; exit 1; }

for program in bench_media_path bench_without_system_call bench_host; do
    echo "running $program"
    mixed=true
    [ "$program" != bench_host ] || mixed=false
    "$build/bench/$program" --benchmark_min_time="$seconds" \
        --benchmark_repetitions="$runs" --benchmark_enable_random_interleaving=$mixed \
        --benchmark_report_aggregates_only=true \
        --benchmark_out="$build/$program.json" --benchmark_out_format=json \
        >"$build/$program.log" 2>&1 || { cat "$build/$program.log"; exit 1; }
done

# Two runs differ by 1000 frames, so that their difference contains only the cost of frames.
instructions=
if command -v valgrind >/dev/null; then
    echo "counting instructions"
    count() {
        valgrind --tool=callgrind --callgrind-out-file=/dev/null \
            "$build/bench/count_instructions" "$1" 2>&1 | awk '/Collected/ { print $4 }'
    }
    instructions=$((($(count 2000) - $(count 1000)) / 1000))
fi

python3 scripts/bench_table.py "$build" "$instructions"
