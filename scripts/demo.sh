#!/usr/bin/env bash
# Demonstrates one spoken call through the real module. Installs missing packages, builds,
# synthesizes the speech of a caller and an agent, taps their call, and checks that the files of
# the media node are bit for bit what was spoken.
#
#   scripts/demo.sh            keeps its files in build/demo
#   scripts/demo.sh --page     shows calls in the browser instead: prints the address of a page of
#                              the media node, and places calls until a key is pressed
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

show_page=
case ${1:-} in
    "") ;;
    --page) show_page=yes ;;
    --help) sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"; exit 0 ;;
    *) echo "demo: unknown argument '$1'; see --help" >&2; exit 2 ;;
esac

folder=build/demo
node_pid=
call_pids=()
# The calls end before the media node does, so that it has their ends.
stop() {
    local pid
    for pid in "${call_pids[@]}" $node_pid; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    call_pids=()
    node_pid=
}
trap stop EXIT

step() { printf '\n%s\n' "$*"; }
fail() { echo "demo: $*" >&2; exit 1; }

scripts/setup.sh build

step "1. Building the module, the driver and the media node"
mkdir -p build
{
    cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DQUORVANE_JOIN_SOURCES=ON &&
    cmake --build build -j "$(nproc)" --target \
        mod_quorvane mod_quorvane_relocated quorvane-call quorvane-node
} >build/demo-build.log 2>&1 || { tail -n 40 build/demo-build.log; fail "the build failed"; }
echo "   build/mod_quorvane.so  $(stat -c %s build/mod_quorvane.so) bytes"

# Starts the media node with further options. Sets `port` and `node_pid`.
start_node() {
    build/quorvane-node --listen 127.0.0.1:0 --output "$folder/received" --timeline \
        --samples "$folder/samples" "$@" >"$folder/node.log" 2>&1 &
    node_pid=$!
    port=
    for _ in $(seq 50); do
        port=$(grep -o -m1 '127\.0\.0\.1:[0-9]*' "$folder/node.log" | cut -d: -f2 || true)
        [ -z "$port" ] || break
        sleep 0.1
    done
    [ -n "$port" ] || { cat "$folder/node.log"; fail "the media node did not start"; }
}

rm -rf "$folder"
mkdir -p "$folder/received" "$folder/samples"
speak() { espeak-ng -m -v "$1" -s 150 -w "$folder/$2.wav" "$3" >/dev/null; }

# place_calls NAME OPTION...: places calls until it is killed. The options are the driver's.
place_calls() {
    local name=$1
    shift
    build/quorvane-call --quiet --module build/mod_quorvane.so --media-node "127.0.0.1:$port" \
        --calls 1000000 --length 20-90 --repeat --read "$folder/caller.wav" \
        --write "$folder/agent.wav" --set "sip_call_id=$name-{n}@demo" \
        --set quorvane_rule_id=7 --set quorvane_audio_activity=true \
        --set quorvane_detection=true --set quorvane_record=yes "$@" >"$folder/$name.log" 2>&1 &
    call_pids+=($!)
}

page_demo() {
    step "2. Callers and agents speak; an announcement plays between the agents' sentences"
    speak en-us+m2 samples/announcement "This call may be recorded."
    speak en-gb caller "Good morning. I would like to know whether my order has been sent.
        <break time='5s'/>Four seven one one. I ordered it on Monday.<break time='5s'/>
        Thank you very much. Goodbye.<break time='2s'/>"
    speak en-us+f3 greeting "<break time='4s'/>Good morning! One moment, please."
    speak en-us+f3 answer "Which number does it have?<break time='4s'/>
        I see. Yes, it left our house yesterday.<break time='4s'/>"
    sndfile-concat "$folder/greeting.wav" "$folder/samples/announcement.wav" \
        "$folder/answer.wav" "$folder/agent.wav"

    step "3. A media node listens, and has a page"
    start_node --http 127.0.0.1:0
    page=$(grep -o -m1 'https\{0,1\}://127\.0\.0\.1:[0-9]*/' "$folder/node.log" | head -n 1)
    echo "   Open $page in a browser. A click on a call shows it; then you can listen."

    step "4. Calls begin and end. The network of some of them loses packets"
    place_calls order --rate 0.2 --concurrent 5
    place_calls lossy --rate 0.1 --concurrent 2 --lose 1 --seed 2
    echo "   Press a key to end them."
    read -rsn1 || true
    step "5. The calls end"
    stop
    echo "   Their files are in $folder/received."
}

if [ -n "$show_page" ]; then
    page_demo
    exit 0
fi

step "2. A caller and an agent speak; an announcement plays between the agent's sentences"
speak en-gb caller "Good morning. I would like to know whether my order has been sent."
speak en-us+f3 greeting "Good morning! One moment, please."
speak en-us+m2 samples/announcement "This call may be recorded."
speak en-us+f3 answer "Yes, it left our house yesterday."
sndfile-concat "$folder/greeting.wav" "$folder/samples/announcement.wav" "$folder/answer.wav" \
    "$folder/agent.wav"
info() { sndfile-info "$1" | awk -v name="$2" '$1 == name { print $(NF); exit }'; }
rate=$(info "$folder/agent.wav" Sample)
announced=$(awk "BEGIN { printf \"%.3f\", $(info "$folder/greeting.wav" Frames) / $rate }")
sndfile-info "$folder/agent.wav" | grep -E '^(Sample Rate|Duration)' | sed 's/^/   /'
echo "   the announcement begins at $announced s of the agent's side"

step "3. A media node listens, and knows the announcement"
# The rate is given, because the node would estimate it from the times of the packets, and on a
# busy machine frames are sent late.
start_node --calls 1 --rate "$rate" --events "$folder/events.jsonl"
echo "   on 127.0.0.1:$port"

step "4. The call, tapped by build/mod_quorvane.so; detection is switched on while it runs"
uuid=$(cat /proc/sys/kernel/random/uuid)
build/quorvane-call --module build/mod_quorvane.so --media-node "127.0.0.1:$port" \
    --uuid "$uuid" --read "$folder/caller.wav" --write "$folder/agent.wav" \
    --set sip_call_id=demo@quorvane --set quorvane_rule_id=7 \
    --set quorvane_audio_activity=true --set quorvane_detection=inactive \
    --set quorvane_record=yes \
    --api "1.0 quorvane {uuid} detection start both" \
    --api "1.5 quorvane {uuid} features" | sed 's/^/   /'

wait "$node_pid" || { cat "$folder/node.log"; fail "the media node failed"; }
node_pid=

step "5. What the media node received"
grep -Ev '  (activity|sample) +(originator|terminator):' "$folder/node.log" | sed 's/^/   /'

step "6. What the media node detected, and when"
grep -E '  (activity|sample) +(originator|terminator):' "$folder/node.log" |
    sed "s/^[^ ]*  $uuid  /   /"
heard=$(sed -n 's/.*  sample  *terminator: "announcement" at \([0-9.]*\) s.*/\1/p' \
    "$folder/node.log")
[ "$(printf '%s\n' "$heard" | grep -c .)" = 1 ] ||
    fail "the announcement was not recognised exactly once on the agent's side"
awk "BEGIN { late = $heard - $announced; exit !(late < 0.05 && late > -0.05) }" ||
    fail "the announcement began at $announced s, but was recognised at $heard s"
echo "   The announcement was recognised where it began: spoken at $announced s," \
    "recognised at $heard s."
echo "   The picture of the call: $folder/received/$uuid.svg"

step "7. The proof: samples spoken against samples received"
for side in "caller originator" "agent terminator"; do
    read -r speaker leg <<<"$side"
    spoken=$folder/$speaker.wav received=$folder/received/$uuid-$leg.wav
    sndfile-cmp "$spoken" "$received" >"$folder/compare.log" 2>&1 ||
        { cat "$folder/compare.log"; fail "$received is not what the $speaker said"; }
    samples=$(sndfile-info "$received" | awk '$1 == "Frames" { print $3; exit }')
    printf '   %-7s %s samples, all equal: %s\n' "$speaker" "$samples" "$received"
done
echo
echo "The call's audio reached the media node unaltered."
