#!/usr/bin/env bash
# Runs parse_golden.js with its packages installed into the folder given (made
# if missing). Ends with 77, which CTest counts as skipped, where Node or npm is
# missing or the package registry cannot be reached.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=${1:?usage: run.sh FOLDER}

skip() {
  echo "skipped: $1"
  exit 77
}

# How long npm waits for a registry that does not answer.
patience=(--fetch-retries=1 --fetch-retry-mintimeout=1000 --fetch-timeout=20000)

# The error code in npm's output, for a sentence.
npm_error() {
  local code
  code=$(grep -oE -m1 '(ERR!|error) code [A-Z0-9_]+' "$1" | awk '{ print $3 }') || return 0
  echo " ($code)"
}

# Whether the registry answers for the package that is wanted. What npm has stored says
# nothing about that, hence the empty cache.
registry_answers() {
  local empty
  empty=$(mktemp -d)
  local status=0
  timeout 60 npm view kaitai-struct-compiler name --cache "$empty" "${patience[@]}" \
    >/dev/null 2>&1 || status=$?
  rm -rf "$empty"
  return "$status"
}

for program in node npm; do
  command -v "$program" >/dev/null || skip "$program is not installed (Debian: apt-get install nodejs npm)"
done
major=$(node -p 'process.versions.node.split(".")[0]')
[ "$major" -ge 18 ] || skip "Node 18 or later is needed, this is $(node --version)"

mkdir -p "$folder"
folder=$(cd "$folder" && pwd)
stamp=$(cat "$here/package.json" "$here/package-lock.json" | sha256sum)

# The packages are installed once and again when the lock file has changed.
if [ "$(cat "$folder/installed" 2>/dev/null || true)" != "$stamp" ]; then
  rm -rf "$folder/installed" "$folder/node_modules"
  cp "$here/package.json" "$here/package-lock.json" "$here/.npmrc" "$folder/"
  log=$folder/install.log
  if ! (cd "$folder" && timeout 120 npm ci --ignore-scripts --prefer-offline "${patience[@]}") \
    >"$log" 2>&1; then
    registry_answers || skip "the package registry cannot be reached$(npm_error "$log"), so the Kaitai Struct compiler could not be fetched"
    cat "$log" >&2
    echo "npm ci failed, though the package registry answers" >&2
    exit 1
  fi
  echo "$stamp" >"$folder/installed"
fi

# The parser in another language, made by the command that docs/protocol.md shows.
rm -rf "$folder/python"
node "$here/compile.js" "$folder" python "$folder/python"
grep -q 'class Quorvane' "$folder/python/quorvane.py"

exec node "$here/parse_golden.js" "$folder"
