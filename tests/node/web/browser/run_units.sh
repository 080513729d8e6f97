#!/usr/bin/env bash
# Tests the scripts of the page without a browser. Exits with 77, which CTest counts as skipped, if
# Node is missing or older than version 18.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../../../support/npm_packages.sh
source "$here/../../../support/npm_packages.sh"
require_node
exec node --test "$here/calls_test.mjs" "$here/live_test.mjs" "$here/player_test.mjs"
