#!/usr/bin/env bash
# Tests the page of the media node. Installs the packages that the tests need into FOLDER, and leaves
# two pictures of the page there for a person: desktop.png and telephone.png. Exits with 77, which
# CTest counts as skipped, if there is no Chromium, if Node or npm is missing, or if the package
# registry cannot be reached.
#
#   run.sh FOLDER QUORVANE_NODE TEST [OPTION...]   TEST is a file of this folder
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if [ "${1:-}" = --help ]; then
  sed -n '2,/^set/s/^# \{0,1\}//p' "$here/run.sh"
  exit 0
fi
folder=${1:?usage: run.sh FOLDER QUORVANE_NODE TEST}
program=${2:?usage: run.sh FOLDER QUORVANE_NODE TEST}
test=${3:?usage: run.sh FOLDER QUORVANE_NODE TEST}
shift 3

# shellcheck source=../../../support/npm_packages.sh
source "$here/../../../support/npm_packages.sh"

# The shell without a window needs a quarter less processor time.
chromium=$(command -v chromium-headless-shell || command -v chromium || command -v chromium-browser) ||
  skip "Chromium is not installed (Debian: apt-get install chromium-headless-shell)"
npm_packages "$here" "$folder" playwright-core

PAGE_PACKAGES=$(cd "$folder" && pwd)
export PAGE_PACKAGES PAGE_CHROMIUM=$chromium PAGE_MEDIA_NODE=$program PAGE_PICTURES=$PAGE_PACKAGES
exec node "$here/$test" "$@"
