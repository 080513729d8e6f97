#!/usr/bin/env bash
# Configures the project for each release of the host that it can be built for.
#
#   host_versions_test.sh COMPILER
#
# Real headers, if there are any, must be accepted for their own release and refused for every
# other.
set -uo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
compiler=$1
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
. "$source_dir/tests/support/checks.sh"

# Configures for a host ($1) and a release of it ($2).
configure() {
    cmake -S "$source_dir" -B "$build" -DCMAKE_CXX_COMPILER="$compiler" -DQUORVANE_TOOLS=OFF \
        -DQUORVANE_HOST="$1" -DQUORVANE_HOST_VERSION="$2" >"$build/log" 2>&1
}

# Compiles one of the two interface checks.
compiles() { cmake --build "$build" --target "$1_interface_check" >"$build/log" 2>&1; }

for release in auto 1.10.0 1.10.2 1.10 1.11; do
    configure embedded "$release" && compiles embedded || {
        cat "$build/log"
        fail "host/include for $release"
    }
done

if configure embedded 1.9; then
    fail "release 1.9 is accepted"
fi
grep -q 'QUORVANE_HOST_VERSION=1.9: expected auto, 1.10.0' "$build/log" || fail "no word on 1.9"

if ! pkg-config --exists freeswitch; then
    echo "the real headers are not tried: no FreeSWITCH is installed"
    exit $((failures > 0))
fi
accepted=0
for release in 1.10.0 1.10.2 1.10 1.11; do
    configure freeswitch "$release" || fail "configuring for $release"
    if compiles freeswitch; then
        echo "FreeSWITCH $(pkg-config --modversion freeswitch) is $release"
        accepted=$((accepted + 1))
    else
        grep -q 'as in the release of QUORVANE_HOST_VERSION' "$build/log" ||
            fail "no word on $release"
    fi
done
[ "$accepted" -le 1 ] || fail "the real headers are accepted for $accepted releases"
configure freeswitch auto && compiles freeswitch || {
    cat "$build/log"
    fail "the real headers are refused for their own release"
}
exit $((failures > 0))
