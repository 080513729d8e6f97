#!/usr/bin/env bash
# Installs the Debian packages that the build and the tests need, unless they are installed already.
# Installs as root or with sudo. If neither is possible, prints their names and stops.
#
#   scripts/setup.sh            the packages of scripts/packages.txt, except those marked [optional]
#   scripts/setup.sh build      the same, without those marked [test] (tests and benchmarks)
#   scripts/setup.sh optional   all of them; without those marked [optional], some tests are skipped
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

wanted=${1:-all}
case $wanted in
    --help) sed -n '2,/^set/s/^# \{0,1\}//p' "scripts/${BASH_SOURCE[0]##*/}"; exit 0 ;;
    all) lines=$(grep -v '\[optional\]' scripts/packages.txt) ;;
    build) lines=$(grep -v '\[test\]\|\[optional\]' scripts/packages.txt) ;;
    optional) lines=$(cat scripts/packages.txt) ;;
    *) echo "setup: unknown set of packages '$wanted': all, build or optional" >&2; exit 2 ;;
esac

missing=()
while read -r package; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    # A tool from another source, such as npm together with its own node, will do.
    [ "$status" = installed ] || command -v "$package" >/dev/null || missing+=("$package")
done < <(sed 's/#.*//' <<<"$lines" | awk 'NF { print $1 }')

[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "setup: these packages are missing; install them as root:" >&2
        echo "  apt-get install ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
install() {
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=120 install -y -q --no-install-recommends \
        "${missing[@]}" >"$log" 2>&1
}
# The package lists may be older than the archive, so they are updated once.
if ! install; then
    "${as_root[@]}" apt-get update -q >>"$log" 2>&1 || true
    install || { echo "setup: apt-get failed:" >&2; tail -n 20 "$log" >&2; exit 1; }
fi
rm -f "$log"
