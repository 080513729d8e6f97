#!/usr/bin/env bash
# Installs the built packages quorvane-tools and quorvane-dev on a minimal Debian 12 and uses
# them there as their users do. Skipped (77) if such a system cannot be made.
#
#   stand_alone_test.sh BUILD_FOLDER
set -uo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$source_dir/scripts/bare_machine.sh" --check || exit
mkdir "$work/packages"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/packages" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; exit 1; }
rm -rf "$work/packages/_CPack_Packages"
cp "$source_dir/tests/package/stand_alone_steps.sh" "$source_dir/tests/support/checks.sh" \
    "$work/packages"
"$source_dir/scripts/bare_machine.sh" --add "$work/packages" bash ../packages/stand_alone_steps.sh
