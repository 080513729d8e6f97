#!/usr/bin/env bash
# Builds and runs the benchmarks, prints one table with the goals that the project has
# set itself, and writes everything as JSON to build/bench/results.json.
#
#   scripts/bench.sh           all
#   scripts/bench.sh --quick   shorter runs, for a look
#
# Every benchmark runs several times and the middle of its runs counts. Those without a
# host are mixed: what disturbs the machine for a while then touches a few runs of each. A
# host of 10,000 calls leaves the heap in pieces for the next, so hosts come in order.
#
# A goal that is missed is told, not punished: machines are noisy. Run it on a machine
# that does nothing else.
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

# Two runs that differ by 1000 frames, so that what surrounds the frames falls out.
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
