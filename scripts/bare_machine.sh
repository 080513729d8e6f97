#!/usr/bin/env bash
# Makes a minimal Debian 12 (debootstrap, variant minbase) and runs a command in it, on a
# copy of this checkout with the changes that are not committed. This shows whether a
# machine needs anything that scripts/packages.txt does not name.
#
#   scripts/bare_machine.sh                        runs scripts/demo.sh, as root
#   scripts/bare_machine.sh [OPTION...] COMMAND [ARGUMENT...]
#
#   --user        runs the command as an ordinary user who may use sudo
#   --add FOLDER  copies FOLDER beside the checkout, under its own name
#   --renew       makes the base again instead of using the one in the cache
#   --check       only reports whether such a system can be made on this machine
#
# Needs root, debootstrap, and the right to mount. The base and the downloaded packages are
# kept in ${XDG_CACHE_HOME:-~/.cache}/quorvane/bare. The system and all changes to it are
# removed at the end. All mounts are in a mount namespace of their own, which ends with the
# command. The system uses the network and the package sources of this machine.
#
# Exits with the code of the command. If such a system cannot be made, prints the reason and
# exits with 77.
set -euo pipefail

# debootstrap and pivot_root are in folders that a user's PATH may lack.
PATH=$PATH:/usr/sbin:/sbin
SUITE=bookworm
cache=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/quorvane/bare

say() { echo "bare_machine: $*"; }
usage() { sed -n '2,/^set/s/^# \{0,1\}//p' "$0"; }
fail() { say "$*" >&2; exit 2; }
cannot() { say "cannot make a bare system: $*" >&2; exit 77; }

# ---- Outside: as root, in the namespaces of the machine -------------------------------

# The machine's package sources for SUITE, one line each: URI RELEASE COMPONENT.
package_sources() {
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk -v suite="$SUITE" '$2 == suite || index($2, suite "-") == 1' | sort -u
}

# The address of the archive that has SUITE itself; nothing if there is none.
archive() { package_sources | awk -v suite="$SUITE" '$2 == suite { print $1; exit }'; }

# Whether the archive has its list of files, which has one of two names.
answers() {
    local file name status=1
    file=$(mktemp)
    for name in InRelease Release; do
        /usr/lib/apt/apt-helper -o Acquire::Retries=1 -o Acquire::http::Timeout=20 \
            download-file "${1%/}/dists/$SUITE/$name" "$file" >/dev/null 2>&1 || continue
        status=0
        break
    done
    rm -f "$file"
    return "$status"
}

check_possible() {
    local tool mirror
    [ "$(id -u)" -eq 0 ] || cannot "this is not root"
    for tool in apt-get debootstrap unshare pivot_root git; do
        command -v "$tool" >/dev/null || cannot "$tool is not installed"
    done
    mirror=$(archive)
    [ -n "$mirror" ] || cannot "apt has no package source for Debian's $SUITE"
    answers "$mirror" || cannot "the package archive $mirror cannot be reached"
    unshare --mount --pid --fork --propagation private mount -t tmpfs none /mnt 2>/dev/null ||
        cannot "mounting is not allowed here"
}

# Makes the base, unless the cache has one from the same package source.
make_base() {
    local base=$1 mirror log=$cache/debootstrap.log
    mirror=$(archive)
    [ "$(cat "$base.made" 2>/dev/null)" != "$mirror" ] || return 0
    say "making the base in $base"
    rm -rf "$base" "$base.made"
    local include=()
    ! package_sources | grep -q '^https' || include=(--include=ca-certificates)
    local proxy
    proxy=$(apt-config shell proxy Acquire::http::Proxy)
    eval "$proxy"
    env ${proxy:+"http_proxy=$proxy"} unshare --mount --propagation private \
        debootstrap --variant=minbase "${include[@]}" \
        "$SUITE" "$base" "$mirror" >"$log" 2>&1 || {
        tail -n 20 "$log" >&2
        cannot "debootstrap failed"
    }
    # As in any image, the package lists are missing: apt has to update them first.
    rm -rf "$base"/var/lib/apt/lists/* "$base"/var/cache/apt/*
    echo "$mirror" >"$base.made"
}

# Copies the checkout to $1, with its history and the changes that are not committed.
copy_checkout() {
    git clone -q --no-hardlinks . "$1"
    git ls-files -z --deleted | (cd "$1" && xargs -0 --no-run-if-empty rm -f)
    git ls-files -z --modified --others --exclude-standard --deduplicate |
        while IFS= read -r -d '' file; do
            [ ! -e "$file" ] || printf '%s\0' "$file"
        done | tar --create --null --files-from=- | tar --extract --directory="$1"
}

run_outside() {
    local base=$cache/$SUITE
    check_possible
    [ "$only_check" = no ] || { say "can be made here"; return 0; }
    mkdir -p "$cache/archives/partial" "$cache/runs"
    [ "$renew" = no ] || rm -f "$base.made"
    # Two runs at the same time must not both make the base.
    exec 9>"$cache/lock"
    flock 9
    make_base "$base"
    flock -u 9

    run=$(mktemp -d "$cache/runs/XXXXXX")
    trap 'rm -rf "$run"' EXIT
    mkdir "$run/upper" "$run/work" "$run/root" "$run/apt"
    copy_checkout "$run/checkout"
    if [ -n "$add" ]; then
        mkdir "$run/added"
        cp -a "$add" "$run/added/"
    fi
    package_sources | sed 's/^/deb /' >"$run/apt/sources.list"
    # Copies how apt reaches its sources, but not the hooks, which call programs of this machine.
    apt-config dump | grep '^Acquire::' |
        grep -v '^Acquire::IndexTargets' >"$run/apt/acquire" || true

    local status=0
    unshare --mount --pid --ipc --fork --kill-child --propagation private \
        "${BASH_SOURCE[0]}" --inside "$run" "$base" "$as_user" "$@" || status=$?
    return "$status"
}

# ---- Inside: in the new namespaces ----------------------------------------------------

# Makes the root of the system: an overlay on the base, or a copy of it if there are no overlays.
mount_root() {
    local run=$1 base=$2
    mount -t overlay overlay -o "lowerdir=$base,upperdir=$run/upper,workdir=$run/work" \
        "$run/root" 2>/dev/null && return
    cp -a --reflink=auto "$base/." "$run/root/"
    mount --bind "$run/root" "$run/root"
}

mount_kernel_folders() {
    local root=$1 node
    mount -t proc proc "$root/proc"
    mount -t sysfs -o ro sysfs "$root/sys" 2>/dev/null || mount --rbind /sys "$root/sys"
    mount -t tmpfs -o mode=755,nosuid dev "$root/dev"
    for node in null zero full random urandom tty net/tun; do
        [ -e "/dev/$node" ] || continue
        mkdir -p "$root/dev/$(dirname "$node")"
        : >"$root/dev/$node"
        mount --bind "/dev/$node" "$root/dev/$node"
    done
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts "$root/dev/pts"
    ln -s pts/ptmx "$root/dev/ptmx"
    mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
    ln -s /proc/self/fd "$root/dev/fd"
    local stream=0 name
    for name in stdin stdout stderr; do
        ln -s "/proc/self/fd/$stream" "$root/dev/$name"
        stream=$((stream + 1))
    done
    mount -t tmpfs -o mode=755 run "$root/run"
    mkdir -m 1777 "$root/run/lock"
}

# Copies what network access needs: names, package sources, their keys, certificates.
copy_network_settings() {
    local root=$1 apt=$2
    cp -L /etc/resolv.conf /etc/hosts "$root/etc/"
    cp "$apt/sources.list" "$root/etc/apt/sources.list"
    cp "$apt/acquire" "$root/etc/apt/apt.conf.d/90machine"
    local folder
    for folder in /etc/apt/trusted.gpg.d /etc/apt/keyrings /etc/apt/auth.conf.d \
        /usr/local/share/ca-certificates; do
        [ -d "$folder" ] || continue
        mkdir -p "$root$folder"
        cp -a "$folder/." "$root$folder/"
    done
    # All runs share the downloaded packages.
    mkdir -p "$root/var/cache/apt/archives"
    mount --bind "$cache/archives" "$root/var/cache/apt/archives"
}

# The environment of a login shell, and the variables that configure package registries.
login_environment() {
    local name
    printf '%s\n' "HOME=$1" "USER=$2" "LOGNAME=$2" "SHELL=/bin/bash" "TERM=${TERM:-dumb}" \
        PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
    for name in http_proxy https_proxy no_proxy HTTP_PROXY HTTPS_PROXY NO_PROXY \
        npm_config_registry; do
        [ -z "${!name:-}" ] || printf '%s\n' "$name=${!name}"
    done
}

run_inside() {
    local run=$1 base=$2 as_user=$3 root=$1/root home=/root user=root
    shift 3
    mount_root "$run" "$base"
    mount_kernel_folders "$root"
    copy_network_settings "$root" "$run/apt"
    mkdir "$root/.outside"
    cd "$root"
    pivot_root . .outside
    # bash uses folders of the old root by name only, so the root can be unmounted.
    cd /

    if [ "$as_user" = yes ]; then
        home=/home/somebody user=somebody
        add_user "$user"
    fi
    mv "/.outside$run/checkout" "$home/quorvane"
    [ ! -d "/.outside$run/added" ] || cp -a "/.outside$run/added/." "$home/"
    chown -R "$user:$user" "$home"
    umount -l /.outside
    rmdir /.outside
    cd "$home/quorvane"

    local environment=()
    mapfile -t environment < <(login_environment "$home" "$user")
    local become=()
    [ "$user" = root ] || become=(setpriv --reuid "$user" --regid "$user" --init-groups)
    exec "${become[@]}" env -i "${environment[@]}" "$@"
}

# Adds sudo and a user who may use it; minbase has neither.
add_user() {
    {
        apt-get update -q
        DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends sudo
    } >/dev/null 2>&1 || fail "sudo could not be installed"
    # The package lists have to be missing here, too, as they are without --user.
    rm -rf /var/lib/apt/lists/*
    useradd --create-home --shell /bin/bash "$1"
    echo "$1 ALL=(ALL) NOPASSWD: ALL" >"/etc/sudoers.d/$1"
}

if [ "${1:-}" = --inside ]; then
    shift
    run_inside "$@"
fi

as_user=no renew=no only_check=no add=
while [ $# -gt 0 ]; do
    case $1 in
        -h | --help) usage; exit 0 ;;
        --user) as_user=yes ;;
        --renew) renew=yes ;;
        --check) only_check=yes ;;
        --add)
            [ -d "${2:-}" ] || fail "--add needs a folder"
            add=$(realpath "$2")
            shift
            ;;
        --) shift; break ;;
        -*) fail "unknown option '$1'; see --help" ;;
        *) break ;;
    esac
    shift
done
[ $# -gt 0 ] || set -- ./scripts/demo.sh
cd "$(dirname "${BASH_SOURCE[0]}")/.."
run_outside "$@"
