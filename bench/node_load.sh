#!/usr/bin/env bash
# Measures how much the receiver can take on one core, and what a packet costs it. The program
# node_load sends calls, each with 100 packets per second, from another core. Everything that the
# socket delivered must be in the files. Packets that the socket itself dropped are reported
# separately and fail the run.
#
#   bench/node_load.sh [--build FOLDER] [--stop-disk SECONDS] [--output FOLDER] [--threads N]
#                      [CALLS [SECONDS]]
#
#   --build FOLDER        a build to use; without it, builds what it needs in build/load
#   --stop-disk SECONDS   stops the disk for this time, two seconds after the first file (0)
#   --output FOLDER       folder of the WAV files; one in memory (/dev/shm/...) avoids the disk
#   --threads N           threads of the receiver. With this option, they may use all cores, and
#                         packets are sent one by one instead of in bundles of 64, which would
#                         pass from thread to thread. Without it: one thread on core 0
#   CALLS, SECONDS        number of calls (3000) and length of the run (10), which make 960 MB
#                         of audio
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build= folder= stopped=0 threads=
while [[ ${1:-} == --* ]]; do
    case $1 in
        --build) build=$2 ;;
        --help) sed -n '2,/^set/s/^# \{0,1\}//p' "bench/${BASH_SOURCE[0]##*/}"; exit 0 ;;
        --output) folder=$2 ;;
        --stop-disk) stopped=$2 ;;
        --threads) threads=$2 ;;
        *) echo "node_load: unknown option $1" >&2; exit 2 ;;
    esac
    shift 2
done
calls=${1:-3000} seconds=${2:-10}

if [ -z "$build" ]; then
    build=build/load
    scripts/setup.sh
    mkdir -p "$build"
    {
        cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVANE_BENCH=ON \
            -DQUORVANE_HOST=embedded &&
        cmake --build "$build" -j "$(nproc)" --target quorvane-node node_load stopped_disk
    } >"$build/build.log" 2>&1 || { tail -n 40 "$build/build.log"; exit 1; }
fi
work=$(mktemp -d)
[ -n "$folder" ] || folder=$work/wav
node_pid=
trap '[ -z "$node_pid" ] || kill "$node_pid" 2>/dev/null || true; rm -rf "$work"' EXIT

preload=()
[ "$stopped" = 0 ] || preload=(env QUORVANE_STOP_AFTER=2 "QUORVANE_STOP_FOR=$stopped"
    "LD_PRELOAD=$build/bench/libstopped_disk.so")
receiver=(taskset -c 0) verb=send
[ -z "$threads" ] || receiver=() verb=singly
"${receiver[@]}" "${preload[@]}" "$build/quorvane-node" --listen 127.0.0.1:0 --output "$folder" \
    --quiet --threads "${threads:-1}" --calls "$calls" --idle-exit 20 --overwrite >"$work/node.log" 2>&1 &
node_pid=$!
for _ in $(seq 50); do
    port=$(grep -o -m1 '127\.0\.0\.1:[0-9]*' "$work/node.log" | cut -d: -f2 || true)
    [ -z "$port" ] || break
    sleep 0.1
done
cpu_ticks() { awk '{ print $14 + $15, $14 }' "/proc/$node_pid/stat"; }
read -r before before_user <<<"$(cpu_ticks)"
taskset -c "$(($(nproc) > 1))" "$build/bench/node_load" "$verb" "127.0.0.1:$port" "$calls" "$seconds"
read -r after after_user <<<"$(cpu_ticks)"
grep -E 'VmHWM' "/proc/$node_pid/status" |
    awk '{ printf "receiver: %d MiB at most, ", $2 / 1024 }' || true
awk -v t="$((after - before))" -v u="$((after_user - before_user))" -v hz="$(getconf CLK_TCK)" \
    -v seconds="$seconds" -v packets="$((calls * (100 * seconds + 2)))" \
    'BEGIN { printf "%.0f %% of a core, %.0f %% outside the kernel, %.2f us per packet\n",
             100 * t / hz / seconds, 100 * u / hz / seconds, 1e6 * t / hz / packets }'
wait "$node_pid" || { cat "$work/node.log"; exit 1; }
node_pid=
grep -A20 -E 'summary' "$work/node.log"
if grep -q 'receive buffer full' "$work/node.log"; then
    echo "the socket dropped packets before the receiver could take them"
    exit 1
fi
"$build/bench/node_load" check "$folder" "$calls"
