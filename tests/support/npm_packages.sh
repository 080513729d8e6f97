# Packages from npm for tests. To be sourced; then npm_packages HERE FOLDER PACKAGE installs what
# package-lock.json in HERE names into FOLDER, if it is not there yet. Exits with 77, which CTest
# counts as skipped, if Node or npm is missing, or if the package registry, which is asked for
# PACKAGE, cannot be reached.

skip() {
  echo "skipped: $1"
  exit 77
}

# How long npm waits for a registry that does not answer.
npm_patience=(--fetch-retries=1 --fetch-retry-mintimeout=1000 --fetch-timeout=20000)

# The error code in npm's output, for a sentence.
npm_error() {
  local code
  code=$(grep -oE -m1 '(ERR!|error) code [A-Z0-9_]+' "$1" | awk '{ print $3 }') || return 0
  echo " ($code)"
}

# Whether the registry has the package. The cache is empty, because npm would otherwise answer from
# it.
registry_answers() {
  local empty
  empty=$(mktemp -d)
  local status=0
  timeout 60 npm view "$1" name --cache "$empty" "${npm_patience[@]}" \
    >/dev/null 2>&1 || status=$?
  rm -rf "$empty"
  return "$status"
}

require_program() {
  command -v "$1" >/dev/null || skip "$1 is not installed (Debian: apt-get install nodejs npm)"
}

require_node() {
  local major
  require_program node
  major=$(node -p 'process.versions.node.split(".")[0]')
  [ "$major" -ge 18 ] || skip "Node 18 or later is needed, this is $(node --version)"
}

npm_packages() {
  local folder=$2 lock
  require_node
  require_program npm
  mkdir -p "$folder"
  # One test installs the packages for all that share the folder. The others wait for that.
  exec {lock}>"$folder/lock"
  flock "$lock"
  install_packages "$@"
  exec {lock}>&-
}

install_packages() {
  local here=$1 folder=$2 package=$3
  local stamp log why
  stamp=$(cat "$here/package.json" "$here/package-lock.json" | sha256sum)

  # The packages are installed once, and again when the lock file has changed.
  [ "$(cat "$folder/installed" 2>/dev/null || true)" != "$stamp" ] || return 0
  rm -rf "$folder/installed" "$folder/node_modules"
  cp "$here/package.json" "$here/package-lock.json" "$here/.npmrc" "$folder/"
  log=$folder/install.log
  if ! (cd "$folder" && timeout 120 npm ci --ignore-scripts --prefer-offline \
    "${npm_patience[@]}") >"$log" 2>&1; then
    why="the package registry cannot be reached$(npm_error "$log")"
    registry_answers "$package" || skip "$why, so $package could not be fetched"
    cat "$log" >&2
    echo "npm ci failed, though the package registry answers" >&2
    exit 1
  fi
  echo "$stamp" >"$folder/installed"
}
