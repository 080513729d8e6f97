#!/usr/bin/env bash
# The steps of stand_alone_test.sh on the minimal system, as root, in the folder of the packages.
# They remove the checkout first, so that nothing of it is used.
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
rm -rf ../quorvane
export DEBIAN_FRONTEND=noninteractive
. ./checks.sh

say() { printf '== %s\n' "$*"; }
quietly() { "$@" >step.log 2>&1 || { tail -n 20 step.log; return 1; }; }
contains() { grep -qF -- "$2" <<<"$1" || { printf 'is: %s\nwithout: %s\n' "$1" "$2"; return 1; }; }

say "quorvane-tools alone"
quietly apt-get update -q || exit 1
quietly apt-get install -y -q --no-install-recommends ./quorvane-tools_*.deb || exit 1
version=$(dpkg-query -W -f '${Version}' quorvane-tools)
said=$(quorvane-node --version)
expect "version of the receiver" contains "$said" "quorvane-node ${version%%+*} (revision "
expect "version of the driver" contains "$(quorvane-call --version)" "${said#quorvane-node }"
revision=${said##* }
expect "revision of the module" \
    grep -qa "${revision%)}@production" /usr/lib/quorvane/mod_quorvane.so

# Sends a call to the receiver, with the module that is packaged with the driver.
quorvane-node --listen 127.0.0.1:40000 --output received --calls 1 --idle-exit 30 >node.log 2>&1 &
node=$!
for _ in $(seq 50); do grep -q listening node.log && break; sleep 0.1; done
expect "a call" quietly quorvane-call --length 1
expect "the receiver's end" wait "$node"
expect "a file for each side" test "$(ls received/*.wav | wc -l)" -eq 2

mv /usr/lib/quorvane /usr/lib/quorvane.away
said=$(quorvane-call --length 1 2>&1)
expect "no module: where it was looked for" contains "$said" "/usr/lib/freeswitch/mod"
expect "no module: the packages" contains "$said" "freeswitch-mod-quorvane and quorvane-tools"
expect "no module: the option" contains "$said" "--module"
mv /usr/lib/quorvane.away /usr/lib/quorvane

say "documents, completion, dissector, service"
quietly apt-get install -y -q --no-install-recommends \
    man-db bash-completion python3 tshark systemd || exit 1
for program in quorvane-node quorvane-call; do
    page=$(find / -xdev -name "$program.1*" -path '*man1*' 2>/dev/null)
    # A minimal system may be configured without manual pages; the package has them.
    [ -n "$page" ] || { fail "manual page of $program"; continue; }
    warnings=$(man --warnings -l "$page" 2>&1 >/dev/null)
    expect "manual page of $program without warnings" test -z "$warnings"
    expect "manual page of $program" contains "$(man -l "$page" 2>/dev/null)" "OPTIONS"
done

completed=$(bash -c '
    . /usr/share/bash-completion/completions/quorvane-node
    COMP_WORDS=(quorvane-node --li) COMP_CWORD=1
    _quorvane quorvane-node --li quorvane-node
    echo "${COMPREPLY[*]}"')
expect "completion" contains "$completed" "--listen"

links=$(python3 - /usr/share/doc/quorvane-tools <<'END'
import pathlib, re, sys
for document in pathlib.Path(sys.argv[1]).rglob("*.md"):
    for link in re.findall(r"\]\(([^)#\s]+)[^)]*\)", document.read_text()):
        if "://" not in link and not link.startswith("mailto:") \
                and not (document.parent / link).exists():
            print(f"{document}: {link}")
END
)
expect "links lead somewhere: $links" test -z "$links"

# tshark loads the dissector by itself.
expect "dissector" contains "$(tshark -G protocols 2>/dev/null)" "quorvane"
expect "Kaitai description" grep -q 'id: quorvane' /usr/share/quorvane/quorvane.ksy

unit=quorvane-node.service
said=$(systemd-analyze verify "/lib/systemd/system/$unit" 2>&1)
expect "verified service: $said" test -z "$(grep -F "$unit" <<<"$said")"
exposure=$(systemd-analyze security --offline=true "/lib/systemd/system/$unit" 2>&1 | tail -n 2)
echo "$exposure" | grep -i exposure
level=$(grep -oE '[0-9]+\.[0-9]+' <<<"$exposure" | head -n 1)
expect "exposure of at most 2.0: $level" awk "BEGIN { exit !(\"$level\" != \"\" && $level <= 2.0) }"
expect "the documented exposure" grep -q "exposure $level," /usr/share/doc/quorvane-tools/docs/node.md
# Threads of the receiver lower their own priority.
expect "priorities" contains "$(systemd-analyze security --offline=true \
    "/lib/systemd/system/$unit" 2>&1)" "setpriority is allowed"
# The receiver accepts the unit's commands, and reports its states.
. /etc/default/quorvane-node
command=$(sed -n 's/^ExecStart=//p' "/lib/systemd/system/$unit")
command=${command/\$QUORVANE_NODE_OPTIONS/$QUORVANE_NODE_OPTIONS}
reload=$(sed -n 's/^ExecReload=//p' "/lib/systemd/system/$unit")
states=$(python3 - "$reload" $command <<'END'
import os, shlex, signal, socket, subprocess, sys
with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
    manager.bind("\0quorvane-stand-alone")
    manager.settimeout(10)
    node = subprocess.Popen(sys.argv[2:], stdout=subprocess.DEVNULL,
                            env={**os.environ, "NOTIFY_SOCKET": "@quorvane-stand-alone"})
    states = [manager.recv(100).decode()]
    # The service manager replaces the name by the process's number, and runs no shell.
    subprocess.run(shlex.split(sys.argv[1].replace("$MAINPID", str(node.pid))), check=True)
    states += [manager.recv(100).decode().splitlines()[0] for _ in range(2)]
    node.send_signal(signal.SIGTERM)
    states.append(manager.recv(100).decode())
    print(*states, node.wait(10))
END
)
expect "states of the service: $states" \
    test "$states" = "READY=1 RELOADING=1 READY=1 STOPPING=1 0"

say "quorvane-dev"
examples=/usr/share/doc/quorvane-tools/examples

# make_receiver FILE LANGUAGE COMPILER...: compiles the example with the flags of pkg-config. Then
# builds it in a project of CMake that has only this language, and sends it a call.
make_receiver() {
    local example=$examples/$1 language=$2 receiver
    shift 2
    expect "$language with pkg-config" \
        quietly "$@" $(pkg-config --cflags quorvane) "$example" -o receiver
    rm -rf receiver-project receiver-build
    mkdir receiver-project
    cat >receiver-project/CMakeLists.txt <<END
cmake_minimum_required(VERSION 3.25)
project(receiver LANGUAGES $language)
find_package(quorvane ${version%%+*} REQUIRED)
add_executable(receiver $example)
target_link_libraries(receiver PRIVATE quorvane::quorvane)
END
    expect "$language with CMake" quietly cmake -S receiver-project -B receiver-build
    expect "$language with CMake, built" quietly cmake --build receiver-build
    ./receiver-build/receiver 127.0.0.1 40001 >receiver.log 2>&1 &
    receiver=$!
    sleep 1
    expect "$language, a call" quietly quorvane-call --media-node 127.0.0.1:40001 --length 1
    sleep 2
    kill "$receiver"
    wait "$receiver"
    expect "$language, the call's start" grep -q ' start: inbound reference=' receiver.log
}
# A receiver in C needs no compiler for C++.
quietly apt-get install -y -q --no-install-recommends \
    ./quorvane-dev_*.deb gcc libc6-dev cmake make pkg-config || exit 1
expect "pkg-config's version" test "$(pkg-config --modversion quorvane)" = "${version%%+*}"
expect "no compiler for C++ yet" sh -c '! command -v g++'
make_receiver receiver.c C gcc -std=c99 -Wall -Wextra -Wconversion -Wshadow -pedantic -Werror
expect "the call's end" grep -q ' terminate$' receiver.log
quietly apt-get install -y -q --no-install-recommends g++ || exit 1
make_receiver receiver.cpp CXX g++ -std=c++17
expect "both sides of the call" test "$(grep -c ' end: ' receiver.log)" -eq 2

say "removal"
expect "removal" quietly apt-get purge -y -q quorvane-tools quorvane-dev
left=$(find / -xdev -name '*quorvane*' -not -path '/root/*' -not -path '/proc/*' \
    -not -path '/var/lib/quorvane-node*' -not -path '/var/cache/*')
expect "nothing is left: $left" test -z "$left"
echo "$failures failed"
exit $((failures > 0))
