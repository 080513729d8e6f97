#!/usr/bin/env bash
# Makes the packages of a build and tests them: contents, control data, installation,
# upgrade, removal and purge in a root folder of their own, lintian, and an RPM if
# rpmbuild is installed. Changes nothing outside a temporary folder.
#
#   package_test.sh BUILD_FOLDER
set -uo pipefail
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$1
name=freeswitch-mod-quorvane
conf=etc/delmaren/quorvane/freeswitch_mod.conf
shipped=$source_dir/packaging/freeswitch_mod.conf
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$source_dir/tests/support/checks.sh"

same() { [ "$1" = "$2" ] || { printf 'is:       %s\nexpected: %s\n' "$1" "$2" && false; }; }
absent() { [ ! -e "$1" ] && [ ! -L "$1" ]; }

for tool in dpkg-deb dpkg dpkg-shlibdeps file; do
    command -v "$tool" >/dev/null || { echo "skipped: no $tool here"; exit 77; }
done
as_root=()
if [ "$(id -u)" -ne 0 ]; then
    command -v fakeroot >/dev/null || { echo "skipped: no fakeroot here"; exit 77; }
    as_root=(fakeroot)
fi

make_packages() {
    cpack --config "$build/CPackConfig.cmake" -G "$1" -B "$work/$1" >"$work/cpack.log" 2>&1 || {
        cat "$work/cpack.log"
        fail "cpack -G $1"
        exit 1
    }
}

# ---- contents and control data ------------------------------------------------------

expect "packages stay in the build folder" \
    grep -qF "set(CPACK_PACKAGE_DIRECTORY \"$build/packages\")" "$build/CPackConfig.cmake"
make_packages DEB
deb=$(ls "$work"/DEB/${name}_*.deb)
field() { dpkg-deb -f "$deb" "$1"; }
version=$(field Version)
release=${version#*+fs}
case $release in
    1.10.0) host="freeswitch (>= 1.10.0~), freeswitch (<< 1.10.1~)" ;;
    1.10.2) host="freeswitch (>= 1.10.2~), freeswitch (<< 1.10.3~)" ;;
    1.10) host="freeswitch (>= 1.10.7~), freeswitch (<< 1.11~)" ;;
    1.11) host="freeswitch (>= 1.11~), freeswitch (<< 1.12~)" ;;
    *) host="freeswitch (>= $release~)" ;;
esac
depends=$(field Depends)
echo "$name $version: $depends"
expect "dependency on the host" grep -qF "$host" <<<"$depends"
for library in 'libc6 (>=' 'libstdc++6 (>='; do
    expect "dependency on $library" grep -qF "$library" <<<"$depends"
done
expect "name" same "$(field Package)" "$name"
expect "synopsis" same "$(field Description | head -n 1)" "call audio tap for FreeSWITCH"
expect "long description" grep -q 'UDP datagrams' <<<"$(field Description)"

dpkg-deb -e "$deb" "$work/control"
expect "conffiles" same "$(cat "$work/control/conffiles")" "/$conf"
expect "control files" same "$(ls "$work/control" | tr '\n' ' ')" "conffiles control md5sums "

unpacked=$work/unpacked
dpkg-deb -x "$deb" "$unpacked"
expect "check sums" sh -c "cd '$unpacked' && md5sum --quiet -c '$work/control/md5sums'"
expect "configuration" cmp "$shipped" "$unpacked/$conf"
module=$(find "$unpacked" -name '*.so' -printf '%P\n')
expect "module" grep -q '/freeswitch/mod/mod_quorvane\.so$' <<<"/$module"
expect "entry of the module" grep -q ' D mod_quorvane_module_interface$' \
    <<<"$(nm -D "$unpacked/$module")"
expect "configuration that the module reads" grep -qa '/etc/delmaren' "$unpacked/$module"
for document in copyright changelog.gz README.md SECURITY.md docs/protocol.md docs/quorvane.ksy \
    examples/freeswitch_mod.conf examples/modules.conf.xml examples/dialplan/all_calls.xml; do
    expect "$document" test -s "$unpacked/usr/share/doc/$name/$document"
done
unexpected=$(find "$unpacked" ! -type d -printf '%P\n' |
    grep -vxE "$conf|$module|usr/share/doc/$name/.*")
expect "nothing else" same "$unexpected" ""

# ---- links between the documents ----------------------------------------------------

# Prints the broken links of the documents below $1.
dead_links() {
    python3 - "$1" <<'END'
import pathlib, re, sys
for document in pathlib.Path(sys.argv[1]).rglob("*.md"):
    for link in re.findall(r"\]\(([^)#\s]+)[^)]*\)", document.read_text()):
        if "://" not in link and not (document.parent / link).exists():
            print(f"{document}: {link}")
END
}
expect "links of the module's documents" same "$(dead_links "$unpacked/usr/share/doc")" ""

# ---- the other packages -------------------------------------------------------------

project_version=${version%%+*}
tools_deb=$(find "$work/DEB" -maxdepth 1 -name 'quorvane-tools_*.deb')
if [ -n "$tools_deb" ]; then
    tools=$work/tools
    dpkg-deb -x "$tools_deb" "$tools"
    expect "links of the tools' documents" same "$(dead_links "$tools/usr/share/doc")" ""
    for file in usr/bin/quorvane-call usr/share/quorvane/quorvane.ksy \
        usr/lib/quorvane/mod_quorvane.so usr/lib/quorvane/relocated/mod_quorvane.so \
        usr/share/bash-completion/completions/quorvane-call \
        usr/share/doc/quorvane-tools/examples/receiver.py \
        usr/share/doc/quorvane-tools/examples/receiver.c \
        usr/share/doc/quorvane-tools/examples/fleet/quorvane.nft \
        usr/share/doc/quorvane-tools/examples/fleet/buckets.py \
        usr/share/doc/quorvane-tools/docs/node.md; do
        expect "$file" test -s "$tools/$file"
    done
    expect "dissector" test -n "$(find "$tools/usr/lib" -path '*/wireshark/plugins/quorvane.lua')"
    said=$("$tools/usr/bin/quorvane-call" --version)
    expect "version of the driver" same "${said%% (*}" "quorvane-call $project_version"
    revision=$(grep -oE '[0-9a-f]{16}' <<<"$said")
    expect "revision of the module" grep -qa " $revision@" "$unpacked/$module"
    expect "the driver finds its module" grep -q "$tools/usr/lib/quorvane/mod_quorvane.so" \
        <<<"$("$tools/usr/bin/quorvane-call" --length 0.1 2>&1)"
fi
dev=$work/dev
dpkg-deb -x "$(find "$work/DEB" -maxdepth 1 -name 'quorvane-dev_*.deb')" "$dev"
for header in media_packet.h media_packet_c.h; do
    expect "header $header" cmp "$source_dir/include/quorvane/$header" \
        "$dev/usr/include/quorvane/$header"
done
expect "links of the headers' documents" same "$(dead_links "$dev/usr/share/doc")" ""
if command -v pkg-config >/dev/null; then
    export PKG_CONFIG_PATH=$dev/usr/share/pkgconfig
    expect "pkg-config's version" same "$(pkg-config --modversion quorvane)" "$project_version"
fi

# ---- installation, upgrade, removal, purge ------------------------------------------

root=$work/root
mkdir -p "$root"/var/lib/dpkg/{info,updates,triggers}
touch "$root"/var/lib/dpkg/{status,available}
# That root has no host, so only the missing host is ignored.
dpkg_here() {
    "${as_root[@]}" dpkg --root="$root" --log=/dev/null --force-depends --force-not-root \
        --force-bad-path "$@" >"$work/dpkg.log" 2>&1 </dev/null || {
        cat "$work/dpkg.log"
        fail "dpkg $*"
    }
}
status() {
    dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${Status} ${Version}' $name 2>/dev/null
}

# The same package with another version ($1) and a configuration with one line more.
later_package() {
    dpkg-deb -R "$deb" "$work/later"
    sed -i "s/^Version:.*/Version: $1/" "$work/later/DEBIAN/control"
    echo "# a later line" >>"$work/later/$conf"
    "${as_root[@]}" dpkg-deb -b "$work/later" "$work/later.deb" >/dev/null
}
later=9.0+fs$release
later_package "$later"

dpkg_here --install "$deb"
expect "installed" same "$(status)" "install ok installed $version"
expect "configuration installed" cmp "$shipped" "$root/$conf"
expect "module installed" test -s "$root/$module"

dpkg_here --install "$work/later.deb"
expect "upgraded" same "$(status)" "install ok installed $later"
expect "untouched configuration is replaced" same "$(tail -n 1 "$root/$conf")" "# a later line"
dpkg_here --force-downgrade --install "$deb"
expect "untouched configuration is put back" cmp "$shipped" "$root/$conf"

echo "media_node = 192.0.2.77:40000" >"$root/$conf"
dpkg_here --force-confdef --install "$work/later.deb"
expect "upgraded again" same "$(status)" "install ok installed $later"
expect "a changed configuration is kept" same "$(cat "$root/$conf")" "media_node = 192.0.2.77:40000"
expect "the new one lies beside it" same "$(tail -n 1 "$root/$conf.dpkg-dist")" "# a later line"

dpkg_here --remove $name
expect "removed" same "$(status)" "deinstall ok config-files $later"
expect "module is gone" absent "$root/$module"
expect "configuration outlives removal" test -e "$root/$conf"

dpkg_here --purge $name
expect "purged" same "$(status)" ""
left=$(find "$root" -path "$root/var/lib/dpkg" -prune -o ! -type d -print)
expect "nothing is left" same "$left" ""
expect "no folder of ours is left" absent "$root/etc/delmaren"

# ---- lintian ------------------------------------------------------------------------

if command -v lintian >/dev/null; then
    # A host that was built by hand is in /opt, and so is its module.
    suppress=()
    [[ $module != opt/* ]] || suppress=(--suppress-tags dir-or-file-in-opt)
    lintian --fail-on error "${suppress[@]}" "$work"/DEB/*.deb 2>&1 | grep -v 'root privileges'
    [ "${PIPESTATUS[0]}" -eq 0 ] || fail "lintian"
else
    echo "not tried: lintian is not installed"
fi

# ---- RPM ----------------------------------------------------------------------------

if ! command -v rpmbuild >/dev/null; then
    echo "not tried: the RPM, for rpmbuild is not installed"
    exit $((failures > 0))
fi
make_packages RPM
rpm=$(ls "$work"/RPM/$name-*.rpm)
query() { rpm --dbpath "$work/rpmdb" -qp "$@" "$rpm" 2>/dev/null; }
expect "version of the RPM" same "$(query --qf '%{VERSION}')" "$version"
first=$(sed -E 's/.*freeswitch \(>= ([0-9.]+)~.*/\1/' <<<"$depends")
before=$(sed -E 's/.*freeswitch \(<< ([0-9.]+)~.*/\1/' <<<"$depends")
expect "RPM's dependency on the host" same "$(query -R | grep '^freeswitch' | tr '\n' ' ')" \
    "freeswitch >= $first freeswitch < $before "
# 17: a configuration file (1) that is not replaced when it was changed (16).
expect "configuration of the RPM" same \
    "$(query --qf '[%{FILEFLAGS} %{FILENAMES}\n]' | grep '^17 ')" "17 /$conf"
files() { sort | grep -v '/\.build-id'; }
expect "files of the RPM" same \
    "$(query --qf '[%{FILEMODES:perms} %{FILENAMES}\n]' | sed -n 's/^-[^ ]* //p' | files)" \
    "$(cd "$unpacked" && find . -type f -printf '/%P\n' | files)"
echo "$(basename "$rpm")"
exit $((failures > 0))
