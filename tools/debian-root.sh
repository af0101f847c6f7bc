# Sourced by the scripts that build or install in a throw-away Debian 12 root: a fresh copy of a
# minimal base that debootstrap makes once and that stays cached under /var/tmp. Needs root.

# debian_root_base ARCH DIR [PACKAGE,...]: the cached base, made when missing.
debian_root_base() {
    local arch=$1 base=$2 include=()
    [ -n "${3:-}" ] && include=(--include="$3")
    [ -x "$base/usr/bin/apt-get" ] && return 0
    if ! command -v debootstrap >/dev/null; then
        apt-get update -q >/dev/null
        DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends debootstrap >/dev/null
    fi
    echo "making the Debian 12 $arch base in $base (once)..." >&2
    rm -rf --one-file-system "$base.tmp"
    debootstrap --arch="$arch" --variant=minbase "${include[@]}" bookworm "$base.tmp" http://deb.debian.org/debian >/dev/null
    rm -f "$base.tmp"/var/cache/apt/archives/*.deb
    mv "$base.tmp" "$base"
}

# debian_root_enter BASE: a fresh copy of the base in $root, with /proc and /dev; removed on exit
# with everything mounted below it.
debian_root_enter() {
    root=$(mktemp -d /var/tmp/kep-root.XXXXXX)
    trap debian_root_leave EXIT
    cp -a "$1/." "$root/"
    cp /etc/resolv.conf "$root/etc/resolv.conf"
    mount -t proc proc "$root/proc"
    mount --bind /dev "$root/dev"
    mount --bind /dev/pts "$root/dev/pts"
}

debian_root_leave() {
    local mounted
    for mounted in $(awk -v under="$root/" 'index($2, under) == 1 { print $2 }' /proc/mounts | sort -r); do
        umount -l "$mounted"
    done
    rm -rf --one-file-system "$root"
}

# in_root COMMAND...: runs in the root with a clean environment; with debian_root_personality
# set (i686), uname reports that machine.
in_root() {
    local personality=()
    [ -n "${debian_root_personality:-}" ] && personality=(setarch "$debian_root_personality")
    "${personality[@]}" chroot "$root" /usr/bin/env -i HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
        PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}
