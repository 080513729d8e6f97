#!/usr/bin/env bash
# Runs calls of random length with API traffic through the module in the embedded host for
# some minutes, and reports whether anything grows or is lost: resident memory, descriptors and
# threads of the process and calls in the module's registry, each with a fitted slope; calls
# without an end; gaps in the audio. Growth can be judged after 9 minutes or more, because a
# process that has just started grows until its number of simultaneous calls has peaked.
#
#   scripts/soak.sh MINUTES [CALLS]      CALLS begin each second (3)
#   scripts/soak.sh MINUTES real         in an installed FreeSWITCH instead
#
# Exits with 1 if something grows, is missing or is left over, and with 3 if the calls are
# complete but the run was too short to judge growth. Figures and samples are kept in
# build/soak, or in build/soak-real.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [ "${1:-}" = --help ]; then
    sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"
    exit 0
fi
minutes=${1:-}
rate=${2:-3}
[[ $minutes =~ ^[0-9]+$ && $minutes -gt 0 && $rate =~ ^([1-9][0-9]*|real)$ ]] ||
    { echo "usage: scripts/soak.sh MINUTES [CALLS|real]" >&2; exit 2; }

folder=build/soak
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true' EXIT

scripts/setup.sh
# Builds what is shipped, with debug information to find the registry.
programs=build/soak-programs
mkdir -p build
{
    cmake -S . -B "$programs" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS=-g &&
    cmake --build "$programs" -j "$(nproc)" --target \
        mod_quorvane mod_quorvane_relocated quorvane-call quorvane-node
} >build/soak-build.log 2>&1 || { tail -n 40 build/soak-build.log; exit 1; }

if [ "$rate" = real ]; then
    folder=build/soak-real
    rm -rf "$folder"
    echo "soak: calls in FreeSWITCH for $minutes minutes"
    python3 tests/real_host/soak.py --module "$programs/mod_quorvane.so" \
        --relocated "$programs/relocated/mod_quorvane.so" --node "$programs/quorvane-node" \
        --minutes "$minutes" "$folder" | tee build/soak-real.log
    # The memory of the switch varies by more than the module uses.
    exec python3 scripts/soak_report.py "$folder" "$(tail -n 1 build/soak-real.log)" \
        --wavers-by 2048 --registry 3
fi

rm -rf "$folder"
mkdir -p "$folder"
"$programs/quorvane-node" --listen 127.0.0.1:0 --output "$folder" --no-sides --quiet \
    --events "$folder/events.jsonl" >"$folder/node.log" 2>&1 &
node=$!
pids+=("$node")
port=
for _ in $(seq 100); do
    port=$(grep -o -m1 '127\.0\.0\.1:[0-9]*' "$folder/node.log" | cut -d: -f2 || true)
    [ -z "$port" ] || break
    sleep 0.1
done
if [ -z "$port" ]; then
    cat "$folder/node.log" >&2
    echo "soak: the media node did not start" >&2
    exit 1
fi

calls=$((minutes * 60 * rate))
echo "soak: $calls calls in $minutes minutes, of 1 to 30 seconds, each with four API commands"
python3 scripts/soak_samples.py "$folder/samples.txt" "$programs/relocated/mod_quorvane.so" \
    "$programs/quorvane-call" --media-node "127.0.0.1:$port" --calls "$calls" --rate "$rate" \
    --length 1-30 --seed 1 --quiet --log-level ERROR --json "$folder/calls.json" \
    --set quorvane_rule_id=1 --set quorvane_audio_activity=true \
    --set quorvane_detection=inactive --set quorvane_record=yes \
    --api "0.3 quorvane {uuid} features" --api "0.5 quorvane {uuid} audio_activity stop both" \
    --api "0.7 quorvane {uuid} audio_activity start" --api "0.9 quorvane {uuid} detection start" \
    >"$folder/calls.log" 2>&1 &
driver=$!
pids+=("$driver")

outcome=0
wait "$driver" || outcome=$?
sleep 1
kill -INT "$node"
wait "$node" || true
pids=()

cat "$folder/calls.log"
[ "$outcome" -eq 0 ] || { echo "soak: quorvane-call ended with exit code $outcome" >&2; exit 1; }
# A call that is never freed would leave at least some 400 bytes.
python3 scripts/soak_report.py "$folder" "$calls" --bytes-a-call 64 --registry 10
