#!/usr/bin/env bash
# Shows what the receiver takes on one core: node_load offers CALLS calls (100 packets a
# second each) for SECONDS, the receiver runs on one core, the sender on another. All
# that the socket delivered must be in the files; what the socket itself threw away is
# told apart.
#
#   bench/node_load.sh [BUILD_FOLDER [CALLS [SECONDS [FOLDER]]]]
set -euo pipefail
build=${1:-build} calls=${2:-3000} seconds=${3:-10} folder=${4:-}
work=$(mktemp -d)
[ -n "$folder" ] || folder=$work/wav
node_pid=
trap '[ -z "$node_pid" ] || kill "$node_pid" 2>/dev/null || true; rm -rf "$work"' EXIT

taskset -c 0 "$build/quorvane-node" --listen 127.0.0.1:0 --output "$folder" --quiet \
    --calls "$calls" --idle-exit 20 --overwrite >"$work/node.log" 2>&1 &
node_pid=$!
for _ in $(seq 50); do
    port=$(grep -o -m1 '127\.0\.0\.1:[0-9]*' "$work/node.log" | cut -d: -f2 || true)
    [ -z "$port" ] || break
    sleep 0.1
done
cpu_ticks() { awk '{ print $14 + $15, $14 }' "/proc/$node_pid/stat"; }
read -r before before_user <<<"$(cpu_ticks)"
taskset -c 1 "$build/bench/node_load" send "127.0.0.1:$port" "$calls" "$seconds"
read -r after after_user <<<"$(cpu_ticks)"
grep -E 'VmHWM' "/proc/$node_pid/status" | awk '{ printf "receiver: %d MiB at most, ", $2 / 1024 }' || true
awk -v t="$((after - before))" -v u="$((after_user - before_user))" -v hz="$(getconf CLK_TCK)" \
    'BEGIN { printf "%.2f s of CPU time while receiving, %.2f s of it outside the kernel\n", t / hz, u / hz }'
wait "$node_pid" || { cat "$work/node.log"; exit 1; }
node_pid=
grep -A20 -E 'summary' "$work/node.log"
if grep -q 'receive buffer full' "$work/node.log"; then
    echo "the socket dropped packets before the receiver could take them (see above)"
else
    "$build/bench/node_load" check "$folder" "$calls"
fi
