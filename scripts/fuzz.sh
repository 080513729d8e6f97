#!/usr/bin/env bash
# Builds a fuzz target and fuzzes it for the given time. It starts from the inputs that failed in
# earlier runs (build/fuzz/failed/TARGET), from those that these runs found (build/fuzz/found/TARGET)
# and from the committed ones (fuzz/corpus/TARGET). docs/fuzzing.md says what to do with an input
# that fails.
#
#   scripts/fuzz.sh TARGET MINUTES            one target, such as "address"
#   scripts/fuzz.sh all MINUTES               every target, one after the other
#   scripts/fuzz.sh --seconds SECONDS TARGET  one target or all, with the time in seconds
#   scripts/fuzz.sh --built ...               any of these, without building first
#   scripts/fuzz.sh --plain ...               any of these, without sanitizers, in build/fuzz_plain:
#                                             faster, and finds only what the target compares
#   scripts/fuzz.sh --list                    prints the names of the targets
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() { sed -n '2,/^set/s/^# \{0,1\}//p' "$0"; }
fail() { echo "fuzz: $*" >&2; exit 2; }
targets() { ls fuzz/corpus; }

seconds=
built=no
preset=fuzz
while :; do
    case ${1:-} in
        --built) built=yes ;;
        --plain) preset=fuzz_plain ;;
        *) break ;;
    esac
    shift
done
case ${1:-} in
    -h | --help) usage; exit 0 ;;
    --list) targets; exit 0 ;;
    --seconds)
        [ $# -eq 3 ] || fail "--seconds needs a number of seconds and a target"
        seconds=$2
        target=$3
        ;;
    *)
        [ $# -eq 2 ] || { usage >&2; exit 2; }
        target=$1
        [[ $2 =~ ^[0-9]+(\.[0-9]+)?$ ]] || fail "not a number of minutes: '$2'"
        seconds=$(awk -v minutes="$2" 'BEGIN { printf "%d", minutes * 60 + 0.5 }')
        ;;
esac
[[ $seconds =~ ^[1-9][0-9]*$ ]] || fail "not a number of seconds: '$seconds'"
target=${target#fuzz_}

build() {
    command -v clang++ >/dev/null || fail "clang is missing: scripts/setup.sh installs it"
    mkdir -p build
    cmake --preset "$preset" >build/fuzz-configure.log 2>&1 ||
        { cat build/fuzz-configure.log; return 1; }
    cmake --build --preset "$preset" -j "$(nproc)" --target "$@" >build/fuzz-build.log 2>&1 ||
        { tail -n 40 build/fuzz-build.log; return 1; }
}

# Fuzzes target $1 and prints the result.
fuzz() {
    local name=$1 folder=$PWD/build/$preset log=$PWD/build/$preset/$1.log
    local found=$folder/found/$name failed=$folder/failed/$name program=$folder/fuzz/fuzz_$name
    local words=()
    [ ! -f "fuzz/fuzz_$name.dict" ] || words=("-dict=$PWD/fuzz/fuzz_$name.dict")
    [ ! -f "fuzz/fuzz_$name.options" ] ||
        mapfile -t -O "${#words[@]}" words <"fuzz/fuzz_$name.options"
    mkdir -p "$found" "$failed"
    echo "fuzz: $name for $seconds s"
    if ! (cd "$folder/fuzz" && "$program" "$found" "$failed" "$OLDPWD/fuzz/corpus/$name" \
        "-max_total_time=$seconds" "-max_len=$(cat "$program.max_length")" -timeout=20 \
        -rss_limit_mb=2048 -print_final_stats=1 "-artifact_prefix=$failed/" "${words[@]}") \
        >"$log" 2>&1; then
        tail -n 60 "$log"
        echo "fuzz: $name FAILED; the input is in build/$preset/failed/$name" >&2
        return 1
    fi
    awk '/ cov: / { for (i = 1; i < NF; ++i) { if ($i == "cov:") cov = $(i + 1)
                                               if ($i == "ft:") ft = $(i + 1) } }
         /number_of_executed_units/ { runs = $2 }
         /peak_rss_mb/ { rss = $2 }
         END { printf "fuzz: %s executions, coverage %s edges (%s features), %s MB\n",
                      runs, cov, ft, rss }' \
        "$log"
}

if [ "$target" = all ]; then
    mapfile -t names < <(targets)
else
    names=("$target")
    [ -d "fuzz/corpus/$target" ] ||
        fail "no such target: '$target'; there are: $(targets | tr '\n' ' ')"
fi
[ "$built" = yes ] || build "${names[@]/#/fuzz_}"
status=0
for name in "${names[@]}"; do
    fuzz "$name" || status=1
done
exit $status
