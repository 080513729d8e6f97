#!/usr/bin/env bash
# Checks the model of the module's threads (model/context.pml) with spin.
#
#   scripts/model.sh                 all configurations
#   scripts/model.sh NAME...         only these
#   scripts/model.sh --list          prints their names
#   scripts/model.sh --trail NAME    prints the steps that break a rule, in their order
#   --configurations FILE            reads FILE instead of model/configurations.txt
#
# Prints the result of each configuration and the number of states that were visited. Exits
# with 0 if every configuration gave the result in its line, with 1 if one did not, and with
# 77 if spin is not installed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

model=$PWD/model/context.pml
configurations=$PWD/model/configurations.txt
mode=run
names=()
while [ $# -gt 0 ]; do
    case $1 in
        --help) sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"; exit 0 ;;
        --list) mode=list ;;
        --trail) mode=trail ;;
        --configurations)
            [ $# -ge 2 ] || { echo "model: --configurations needs a file" >&2; exit 2; }
            configurations=$2
            shift
            ;;
        -*) echo "model: unknown option '$1'" >&2; exit 2 ;;
        *) names+=("$1") ;;
    esac
    shift
done
if [ ! -r "$configurations" ]; then
    echo "model: cannot read '$configurations'" >&2
    exit 2
fi

lines() { sed -e 's/#.*//' -e '/^ *$/d' "$configurations"; }

if [ "$mode" = list ]; then
    lines | awk '{print $1}'
    exit 0
fi
for name in "${names[@]}"; do
    if [ "$(lines | awk -v name="$name" '$1 == name' | wc -l)" -ne 1 ]; then
        echo "model: no configuration '$name': one of $(lines | awk '{printf "%s ", $1}')" >&2
        exit 2
    fi
done
if [ "$mode" = trail ] && [ ${#names[@]} -ne 1 ]; then
    echo "model: --trail needs one configuration" >&2
    exit 2
fi
for tool in spin cc; do
    if ! command -v "$tool" >/dev/null; then
        echo "model: skipped: $tool is not installed"
        exit 77
    fi
done
compiler=cc
# Without optimization, clang needs half the time of gcc.
fast_compiler=cc
command -v clang >/dev/null && fast_compiler=clang
if command -v ccache >/dev/null; then
    compiler="ccache $compiler"
    fast_compiler="ccache $fast_compiler"
fi

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

# The checker's result: "holds", or the rule that is broken.
found_by_checker() {
    local broken
    broken=$(sed -n 's/^pan:1: //p' pan.log)
    case $broken in
        "")
            # A search that ran out of memory reports no error either.
            if grep -q 'errors: 0' pan.log && ! grep -q 'not completed' pan.log; then
                echo holds
            else
                echo unfinished
            fi
            ;;
        "invalid end state"*) echo deadlock ;;
        *"!(context[i].not_freed)"*) echo left-behind ;;
        *"].not_freed"*) echo freed-memory ;;
        *module_mapped==*) echo object-stays ;;
        *module_mapped*) echo unmapped-code ;;
        *attached_bugs\>0*) echo unmapped-with-bugs ;;
        *number\[target*) echo foreign-descriptor ;;
        *being_written*) echo unlocked-options ;;
        *.lock==0*) echo deleted-while-locked ;;
        *frames==0*) echo frame-during-close ;;
        *bug_of*) echo second-bug ;;
        *start_left* | *terminate_left*) echo packet-out-of-order ;;
        *attached_bugs*) echo wrong-count ;;
        *) echo "$broken" ;;
    esac
}

# Builds and runs the checker of one configuration; its output goes to pan.log.
check() {
    local expected=$1
    shift
    rm -f pan pan.* ./*.trail
    # Only a search of the millions of states of two calls takes longer than to optimize for it.
    local compile="$fast_compiler -O0"
    [[ $expected = holds && "$*" = *-DCALLS=2* ]] && compile="$compiler -Og"
    # A search that is too deep must fail, not be cut off: without all states nothing is proven.
    spin "$@" -a context.pml >spin.log 2>&1 &&
        $compile -w -DSAFETY -DVECTORSZ=512 -c pan.c -o pan.o &&
        cc pan.o -o pan &&
        ./pan -b -m100000 -w23 >pan.log 2>&1 || true
    if ! grep -q 'states, stored' pan.log 2>/dev/null; then
        cat spin.log pan.log 2>/dev/null >&2 || true
        return 1
    fi
}

cp "$model" context.pml
failed=0
total=0
while read -r name expected switches; do
    if [ ${#names[@]} -gt 0 ] && [[ " ${names[*]} " != *" $name "* ]]; then
        continue
    fi
    started=$(date +%s%N)
    # shellcheck disable=SC2086  # The variable holds several switches.
    check "$expected" $switches || { echo "model: $name could not be run" >&2; exit 1; }
    found=$(found_by_checker)
    states=$(awk '/states, stored/ {print $1}' pan.log)
    depth=$(sed -n 's/.*depth reached \([0-9]*\).*/\1/p' pan.log)
    if [ "$mode" = trail ]; then
        echo "$name: $found"
        # Prints only the steps, without the conditions that a step tests and without jumps.
        # shellcheck disable=SC2086
        [ "$found" = holds ] || spin $switches -p -t context.pml |
            grep -E '^spin:|^ *[0-9]+:.*\[' | grep -vE '\[(assert|goto|else|printf|\.|\(1\)|IF|DO)'
        exit 0
    fi
    result=ok
    if [ "$found" != "$expected" ]; then
        result=FAILED
        failed=$((failed + 1))
    fi
    total=$((total + 1))
    took=$((($(date +%s%N) - started) / 100000000))
    printf '%-6s %-24s %-19s %9s states, depth %4s, %3d.%d s\n' \
        "$result" "$name" "$found" "$states" "$depth" $((took / 10)) $((took % 10))
    if [ "$result" = FAILED ]; then
        echo "       expected: $expected; switches: $switches"
    fi
done < <(lines)

echo "$((total - failed)) of $total configurations as expected"
[ "$failed" -eq 0 ]
