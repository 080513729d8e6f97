#!/usr/bin/env bash
# Measures how many calls one machine carries. quorvane-call sends calls in real time, both
# directions with frames of 20 ms, to quorvane-node on loopback. Prints a table with a row for
# each number of calls.
#
#   scripts/scale.sh [--build FOLDER] [--seconds N] [CALLS...]
#
#   --build FOLDER    folder of the two programs (build)
#   --seconds N       length of each call (30)
#   CALLS             numbers of calls, one run each (1000 2000 4000)
#
# Run it on an otherwise idle machine, because other programs delay frames.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { echo "usage: scripts/scale.sh [--build FOLDER] [--seconds N] [CALLS...]"; }
refuse() { echo "scale: $*" >&2; usage >&2; exit 2; }

build=build seconds=30
while [[ ${1:-} == --* ]]; do
    case $1 in
        --help) sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"; exit 0 ;;
        --build) build=${2:?--build wants a folder} ;;
        --seconds) seconds=${2:?--seconds wants a number} ;;
        *) refuse "unknown option '$1'" ;;
    esac
    shift 2
done
[ $# -gt 0 ] || set -- 1000 2000 4000
for number in "$seconds" "$@"; do
    [[ $number =~ ^[1-9][0-9]*$ ]] || refuse "'$number' is no number above 0"
done
for program in quorvane-node quorvane-call; do
    [ -x "$build/$program" ] || refuse "$build/$program is missing: build it, or name its folder"
done

work=$(mktemp -d /tmp/quorvane-scale-XXXXXX)
node=
trap '[ -z "$node" ] || kill "$node" 2>/dev/null || true; rm -rf "$work"' EXIT

# All calls start within 5 seconds. The receiver writes no audio, because that would take more
# processor time than receiving it.
run_calls() {
    local calls=$1
    "$build/quorvane-node" --listen 127.0.0.1:0 --output "$work" --no-sides --quiet \
        --max-calls 100000 --idle-exit 30 --calls "$calls" >"$work/node.log" 2>&1 &
    node=$!
    until grep -q 'listening on' "$work/node.log"; do
        kill -0 "$node" 2>/dev/null || { cat "$work/node.log"; exit 1; }
        sleep 0.1
    done
    "$build/quorvane-call" --media-node "$(grep -o -m1 '127\.0\.0\.1:[0-9]*' "$work/node.log")" \
        --calls "$calls" --rate $(((calls + 4) / 5)) --duration "$seconds" --quiet \
        --json "$work/call.json" >"$work/call.log" || cat "$work/call.log"
    wait "$node" || true
    node=
}

print_row() {
    python3 - "$1" "$work/call.json" "$work/node.log" <<'PY'
import json
import re
import sys

calls, figures = int(sys.argv[1]), json.load(open(sys.argv[2]))
log = open(sys.argv[3]).read()
sent = figures["data_packets_expected"] + 2 * figures["calls"]["tapped"]
came = int(re.search(r"([\d,]+) packets", log.split("summary")[-1]).group(1).replace(",", ""))
late = figures["lateness"]
columns = ("p50_s", "p90_s", "p99_s", "p99.9_s", "max_s")
times = " | ".join(f"{late[key] * 1000:.2f}" for key in columns)
cpu = figures["cpu"]
print(f"| {calls:,} | {times} | {figures['handling']['p50_s'] * 1e6:.1f} "
      f"| {(cpu['user_s'] + cpu['system_s']) / figures['elapsed_s'] * 100:.0f} "
      f"| {cpu['per_call_second_s'] * 1000:.2f} | {figures['memory']['per_call_bytes'] / 1024:.0f} "
      f"| {sent:,} | {came:,} |")
PY
}

load=$(cut -d' ' -f1 /proc/loadavg)
model=$(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)
echo "$(nproc) processors ($model), Linux $(uname -r), load $load before"
echo
echo -n "| calls | late by, ms: 50 % | 90 % | 99 % | 99.9 % | most | module per frame, us "
echo -n "| CPU, % of a core | CPU per call, ms/s | memory per call, KiB "
echo "| packets sent | received |"
echo "|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|"
for calls in "$@"; do
    run_calls "$calls"
    print_row "$calls"
done
