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

# shellcheck source=../support/npm_packages.sh
source "$here/../support/npm_packages.sh"
npm_packages "$here" "$folder" kaitai-struct-compiler
folder=$(cd "$folder" && pwd)

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
