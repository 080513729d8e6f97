#!/usr/bin/env bash
# Tests `cmake --install` into temporary folders: where each file goes, that an operator's settings
# are kept, and that projects in C and C++ can use what is installed for them.
#
#   install_test.sh COMPILER
set -uo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
compiler=$1
conf=etc/delmaren/quorvane/freeswitch_mod.conf
shipped=$source_dir/packaging/freeswitch_mod.conf
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$source_dir/tests/support/checks.sh"

# Configures a build; where its module goes does not depend on what is in the file.
configure() {
    cmake -S "$source_dir" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" -DQUORVANE_TOOLS=OFF \
        "$@" >"$work/log" 2>&1 || {
        cat "$work/log"
        fail "configuring with $*"
    }
    echo "not a module" >"$work/build/mod_quorvane.so"
}
install_into() {
    DESTDIR=$1 cmake --install "$work/build" --component module --prefix /usr >"$work/log" 2>&1 || {
        cat "$work/log"
        fail "cmake --install into $1"
    }
}

# ---- without a host -----------------------------------------------------------------

configure -DQUORVANE_HOST=embedded
install_into "$work/plain"
expect "module in lib/freeswitch/mod" test -f "$work/plain/usr/lib/freeswitch/mod/mod_quorvane.so"
expect "configuration" cmp "$shipped" "$work/plain/$conf"
documents=$work/plain/usr/share/doc/freeswitch-mod-quorvane
for file in README.md SECURITY.md docs/protocol.md docs/quorvane.ksy examples/README.md \
    tools/wireshark/README.md tests/data/README.md; do
    expect "document $file" cmp "$source_dir/$file" "$documents/$file"
done
for sample in packaging/freeswitch_mod.conf packaging/modules.conf.xml; do
    expect "sample $sample" cmp "$source_dir/$sample" "$documents/examples/$(basename $sample)"
done
expect "dialplans" diff -r "$source_dir/examples/dialplan" "$documents/examples/dialplan"

# ---- for receivers in C and C++ ---------------------------------------------------------

receivers=$work/receivers
mkdir "$receivers"
cp "$source_dir"/examples/receiver.{c,cpp} "$receivers"
cmake --install "$work/build" --component dev --prefix "$work/dev" >"$work/log" 2>&1 ||
    fail "cmake --install of the headers"
for header in media_packet.h media_packet_c.h; do
    expect "$header" cmp "$source_dir/include/quorvane/$header" "$work/dev/include/quorvane/$header"
done
for example in receiver.c receiver.cpp; do
    expect "example $example" test -s "$work/dev/share/doc/quorvane-dev/examples/$example"
done
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; return 1; }; }
# Builds a receiver with the project of examples/README.md, but in the language $1 from the file $2.
# The project asks for older standards than the headers need, so the target has to raise them.
build_project() {
    sed -n 's/^    \(cmake_minimum\|project\|find_package\|add_exec\|target_link\)/\1/p' \
        "$source_dir/examples/README.md" >"$receivers/CMakeLists.txt"
    sed -i "s/LANGUAGES C/LANGUAGES $1/; s/receiver\.c/$2/" "$receivers/CMakeLists.txt"
    rm -rf "$work/receiver"
    quietly cmake -S "$receivers" -B "$work/receiver" -DCMAKE_PREFIX_PATH="$work/dev" \
        -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_C_STANDARD=90 -DCMAKE_CXX_STANDARD=14 \
        -DCMAKE_C_FLAGS="-Wall -Werror" -DCMAKE_CXX_FLAGS="-Wall -Werror" &&
        quietly cmake --build "$work/receiver" && test -x "$work/receiver/receiver"
}
expect "a project in C++" build_project CXX receiver.cpp
flags=
if command -v pkg-config >/dev/null; then
    read -r flags < <(PKG_CONFIG_PATH=$work/dev/share/pkgconfig pkg-config --cflags quorvane)
    expect "flags of pkg-config" test -n "$flags"
    expect "a receiver in C++ with pkg-config" \
        quietly "$compiler" -std=c++17 -fsyntax-only "$flags" "$receivers/receiver.cpp"
else
    echo "not tried: pkg-config is not installed"
fi
if command -v cc >/dev/null; then
    expect "a project in C" build_project C receiver.c
    expect "a project in both, with a receiver in C" build_project "C CXX" receiver.c
    [ -z "$flags" ] || expect "a receiver in C with pkg-config" \
        quietly cc -std=c99 -fsyntax-only "$flags" "$receivers/receiver.c"
else
    echo "not tried: receivers in C, for cc is not installed"
fi

# ---- over an installation -----------------------------------------------------------

echo "media_node = 192.0.2.77:40000" >"$work/plain/$conf"
install_into "$work/plain"
expect "settings are kept" grep -qx 'media_node = 192.0.2.77:40000' "$work/plain/$conf"
expect "and that is said" grep -q "Kept: $work/plain/$conf" "$work/log"
rm "$work/plain/$conf"
ln -s /nowhere/settings "$work/plain/$conf"
install_into "$work/plain"
expect "a link to nowhere is kept" test -L "$work/plain/$conf"

# ---- beside a host that pkg-config finds --------------------------------------------

mkdir "$work/pkgconfig"
cat >"$work/pkgconfig/freeswitch.pc" <<END
modulesdir=/usr/lib64/freeswitch/mod
Name: freeswitch
Version: 1.11.0
Description: the host as far as this test needs it
END
export PKG_CONFIG_PATH=$work/pkgconfig
configure -DQUORVANE_HOST=freeswitch
install_into "$work/beside"
expect "module beside the host's" test -f "$work/beside/usr/lib64/freeswitch/mod/mod_quorvane.so"

configure -DQUORVANE_MODULE_DIR=/srv/switch/mod
install_into "$work/named"
expect "module in the folder that was named" test -f "$work/named/srv/switch/mod/mod_quorvane.so"
exit $((failures > 0))
