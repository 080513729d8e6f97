#!/usr/bin/env bash
# Checks that the shipped programs and the module have the intended compiler and linker
# protections.
#
#     check_hardening.sh [--unfortified] BUILD_FOLDER PROGRAM_OR_MODULE...
#
# --unfortified: for a build without optimization, which cannot have fortified functions.
set -u
fortified=yes
if [ "$1" = --unfortified ]; then
    fortified=no
    shift
fi
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
commands=$1/compile_commands.json
shift
. "$(dirname "${BASH_SOURCE[0]}")/../support/checks.sh"

# One protected function does not prove that all are, so each source is checked, too.
# The folder of the sources may hold that of the build.
check_commands() {
    local flag=$1 lines without
    lines=$(grep '"command":' "$commands" |
        grep -E -- " -c $source_dir/(quorvane_lib|module|host|node|tools)/[^ ]*\.cpp\"")
    [ -n "$lines" ] || fail "$commands has none of the sources"
    without=$(grep -vE -- " $flag( |$)" <<< "$lines" |
        sed 's/.* -c \([^ ]*\.cpp\)".*/\1/' | sort -u)
    [ -z "$without" ] || fail "compiled without $flag: $(echo $without)"
}

check_file() {
    local file=$1 used dynamic segments stack
    used=$(nm --dynamic --undefined-only --format=posix "$file" |
        awk '{ print $1 }' | sed 's/@.*//')
    grep -qx '__stack_chk_fail' <<< "$used" || fail "$file: no stack protector"
    if [ "$fortified" = yes ]; then
        grep -qE '^__[a-z]+_chk$' <<< "$used" || fail "$file: no fortified function"
    fi

    dynamic=$(readelf --dynamic --wide "$file")
    grep -qE '\((RPATH|RUNPATH)\)' <<< "$dynamic" && fail "$file: has a search path for libraries"
    grep -q 'BIND_NOW' <<< "$dynamic" || fail "$file: is not bound at load (BIND_NOW)"
    grep -q '(TEXTREL)' <<< "$dynamic" && fail "$file: has relocations in its code"

    segments=$(readelf --program-headers --wide "$file")
    grep -q 'GNU_RELRO' <<< "$segments" || fail "$file: has no read-only relocations"
    stack=$(awk '$1 == "GNU_STACK" { print $7 }' <<< "$segments")
    [ "$stack" = RW ] || fail "$file: stack is '$stack' instead of RW"
}

check_commands -fstack-protector-strong
[ "$fortified" = no ] || check_commands -D_FORTIFY_SOURCE=2
for file in "$@"; do
    check_file "$file"
done

[ "$failures" -eq 0 ] && echo "the protections are in $*"
exit "$((failures > 0))"
