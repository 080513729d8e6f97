#!/usr/bin/env bash
# Measures how much the receiver can take on one core, and what a packet costs it. The program
# node_load sends calls, each with 100 packets per second, from another core. Everything that the
# socket delivered must be in the files. Packets that the socket itself dropped are reported
# separately and fail the run.
#
#   bench/node_load.sh [--build FOLDER] [--stop-disk SECONDS] [--output FOLDER] [--threads N]
#                      [--nats WHAT] [CALLS [SECONDS]]
#
#   --build FOLDER        a build to use; without it, builds what it needs in build/load
#   --stop-disk SECONDS   stops the disk for this time, two seconds after the first file (0)
#   --output FOLDER       folder of the WAV files; one in memory (/dev/shm/...) avoids the disk
#   --threads N           threads of the receiver. With this option, they may use all cores, and
#                         packets are sent one by one instead of in bundles of 64, which would
#                         pass from thread to thread. Without it: one thread on core 0
#   --nats WHAT           starts a NATS server on the other core, with its store beside the WAV
#                         files, and lets the receiver send it "events", or events and "audio"
#   CALLS, SECONDS        number of calls (3000) and length of the run (10), which make 960 MB
#                         of audio
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build= folder= stopped=0 threads= nats=
while [[ ${1:-} == --* ]]; do
    case $1 in
        --build) build=$2 ;;
        --help) sed -n '2,/^set/s/^# \{0,1\}//p' "bench/${BASH_SOURCE[0]##*/}"; exit 0 ;;
        --nats) nats=$2 ;;
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
node_pid= server_pid=
trap 'kill $node_pid $server_pid 2>/dev/null || true; rm -rf "$work" "$folder.nats"' EXIT

preload=()
[ "$stopped" = 0 ] || preload=(env QUORVANE_STOP_AFTER=2 "QUORVANE_STOP_FOR=$stopped"
    "LD_PRELOAD=$build/bench/libstopped_disk.so")
wait_for() {  # PATTERN FILE
    for _ in $(seq 100); do
        ! grep -o -m1 "$1" "$2" || return 0
        sleep 0.1
    done
    echo "node_load: no $1 in $2" >&2
    return 1
}

to_nats=()
if [ -n "$nats" ]; then
    PATH=$PATH:/usr/sbin taskset -c "$(($(nproc) > 1))" nats-server --addr 127.0.0.1 --port -1 \
        --jetstream --store_dir "$folder.nats" >"$work/server.log" 2>&1 &
    server_pid=$!
    url=$(wait_for 'client connections on .*' "$work/server.log" | grep -o '[^ ]*$')
    case $nats in audio) echo "audio = yes" ;; *) echo "audio = no" ;; esac >"$work/nats.conf"
    to_nats=(--nats "$url" --nats-config "$work/nats.conf")
fi
receiver=(taskset -c 0) verb=send
[ -z "$threads" ] || receiver=() verb=singly
"${receiver[@]}" "${preload[@]}" "$build/quorvane-node" --listen 127.0.0.1:0 --output "$folder" \
    --quiet --threads "${threads:-1}" --calls "$calls" --idle-exit 20 --overwrite \
    --metrics 127.0.0.1:0 "${to_nats[@]}" >"$work/node.log" 2>&1 &
node_pid=$!
port=$(wait_for 'listening on .*' "$work/node.log" | grep -o '127[^ ]*' | cut -d: -f2)
[ -z "$nats" ] || wait_for "nats stream" "$work/node.log" >/dev/null
# Of all threads, of these outside the kernel, and of the first thread, which receives unless there
# are several.
cpu_ticks() {
    awk '{ print $14 + $15, $14 }' "/proc/$node_pid/stat"
    awk '{ print $14 + $15 }' "/proc/$node_pid/task/$node_pid/stat"
}
read -r -d '' before before_user before_first < <(cpu_ticks) || true
taskset -c "$(($(nproc) > 1))" "$build/bench/node_load" "$verb" "127.0.0.1:$port" "$calls" "$seconds"
read -r -d '' after after_user after_first < <(cpu_ticks) || true
grep -E 'VmHWM' "/proc/$node_pid/status" |
    awk '{ printf "receiver: %d MiB at most, ", $2 / 1024 }' || true
awk -v t="$((after - before))" -v u="$((after_user - before_user))" -v hz="$(getconf CLK_TCK)" \
    -v first="$((after_first - before_first))" \
    -v seconds="$seconds" -v packets="$((calls * (100 * seconds + 2)))" \
    'BEGIN { printf "%.0f %% of a core, %.0f %% outside the kernel, %.2f us per packet,",
             100 * t / hz / seconds, 100 * u / hz / seconds, 1e6 * t / hz / packets
             printf " %.2f us of it in the first thread\n", 1e6 * first / hz / packets }'
[ -z "$nats" ] || python3 - "$(grep -o -m1 'http://[^ ]*' "$work/node.log")" <<'METRICS'
import sys, urllib.request
for line in urllib.request.urlopen(sys.argv[1]).read().decode().splitlines():
    if "_nats_" in line and line[0] != "#":
        print(line)
METRICS
wait "$node_pid" || { cat "$work/node.log"; exit 1; }
node_pid=
grep -A20 -E 'summary' "$work/node.log"
if grep -q 'receive buffer full' "$work/node.log"; then
    echo "the socket dropped packets before the receiver could take them"
    exit 1
fi
"$build/bench/node_load" check "$folder" "$calls"
