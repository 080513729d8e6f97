#!/usr/bin/env bash
# Generates parsers of the packets from docs/quorvane.ksy and runs them on the golden
# datagrams. Installs the packages that it needs into the given folder, which it makes
# if necessary. If a language (javascript, python, cpp) follows, only that one runs;
# otherwise all run, and those that cannot are skipped with the reason. Exits with 77,
# which CTest counts as skipped, if none can run, because Node or npm is missing or the
# package registry cannot be reached.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=${1:?usage: run.sh FOLDER [javascript|python|cpp]}
languages=${2:-javascript python cpp}

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

# Whether the registry has the required package. The cache is empty, because npm would
# otherwise answer from it.
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
  command -v "$program" >/dev/null ||
    skip "$program is not installed (Debian: apt-get install nodejs npm)"
done
major=$(node -p 'process.versions.node.split(".")[0]')
[ "$major" -ge 18 ] || skip "Node 18 or later is needed, this is $(node --version)"

mkdir -p "$folder"
folder=$(cd "$folder" && pwd)
stamp=$(cat "$here/package.json" "$here/package-lock.json" | sha256sum)

# The packages are installed once, and again when the lock file has changed.
if [ "$(cat "$folder/installed" 2>/dev/null || true)" != "$stamp" ]; then
  rm -rf "$folder/installed" "$folder/node_modules"
  cp "$here/package.json" "$here/package-lock.json" "$here/.npmrc" "$folder/"
  log=$folder/install.log
  if ! (cd "$folder" && timeout 120 npm ci --ignore-scripts --prefer-offline "${patience[@]}") \
    >"$log" 2>&1; then
    why="the package registry cannot be reached$(npm_error "$log")"
    registry_answers || skip "$why, so the Kaitai Struct compiler could not be fetched"
    cat "$log" >&2
    echo "npm ci failed, though the package registry answers" >&2
    exit 1
  fi
  echo "$stamp" >"$folder/installed"
fi

# Generates each parser and parses the golden datagrams with it.
compile() { # compile LANGUAGE OUTPUT [VERSION]
  rm -rf "$2"
  node "$here/compile.js" "$folder" "$@" >/dev/null
}

# Finds a Python with the runtime library, because the one in PATH may not be Debian's.
python_with_runtime() {
  local python
  for python in python3 /usr/bin/python3; do
    "$python" -c 'import kaitaistruct' 2>/dev/null && echo "$python" && return
  done
  return 1
}

test_javascript() {
  node "$here/parse_golden.js" "$folder"
}

# Debian 12 has version 0.10 of the runtime library, which needs a parser made by
# version 0.10 of the compiler.
test_python() {
  local python version=0.11
  python=$(python_with_runtime) || {
    echo "python: skipped: no runtime library (Debian: apt-get install python3-kaitaistruct)"
    return 77
  }
  "$python" -c 'import sys, kaitaistruct; sys.exit(kaitaistruct.API_VERSION < (0, 11))' ||
    version=0.10
  compile python "$folder/python-$version" "$version"
  "$python" "$here/parse_golden.py" "$folder/python-$version"
}

# Debian has no runtime library for C++. cpp/kaitai/ replaces it, unless KAITAI_CPP_RUNTIME
# names the source folder of the real one.
test_cpp() {
  command -v c++ >/dev/null || {
    echo "cpp: skipped: no C++ compiler (Debian: apt-get install g++)"
    return 77
  }
  compile cpp_stl "$folder/cpp"
  local runtime=(-I "$here/cpp")
  if [ -n "${KAITAI_CPP_RUNTIME:-}" ]; then
    runtime=(-DKAITAI_REAL_RUNTIME -DKS_STR_ENCODING_NONE -I "$KAITAI_CPP_RUNTIME"
      "$KAITAI_CPP_RUNTIME/kaitai/kaitaistream.cpp")
  fi
  c++ -std=c++17 -o "$folder/parse_golden" "$here/cpp/parse_golden.cpp" \
    "$folder/cpp/quorvane.cpp" -I "$folder/cpp" "${runtime[@]}"
  python3 "$here/parse_golden.py" "$folder/parse_golden"
}

ran=0
for language in $languages; do
  echo "$language:"
  set +e # In front of "||" the shell would ignore failures within the function, too.
  (
    set -e
    "test_$language"
  )
  status=$?
  set -e
  case $status in
    0) ran=1 ;;
    77) ;;
    *) exit "$status" ;;
  esac
done
[ "$ran" -eq 1 ] || exit 77
