#!/usr/bin/env bash
# Builds the i386 packages, suites included, in a clean Debian 12 i386 root: a minimal base
# made once with debootstrap and cached under /var/tmp, copied fresh for every build, with the
# build dependencies installed from debian/control inside it. Needs root (debootstrap, chroot).
#
#   tools/package-i386.sh SOURCE-DIR     (the packages land beside it, as dpkg-buildpackage puts them)
set -euo pipefail
src=$(cd "$1" && pwd)
base=/var/tmp/kep-bookworm-i386
debs=/var/tmp/kep-bookworm-i386-debs   # downloaded packages, kept between builds
mirror=http://deb.debian.org/debian

[ "$(id -u)" -eq 0 ] || { echo "package-i386: needs root (debootstrap, chroot)" >&2; exit 1; }
command -v debootstrap >/dev/null || { echo "package-i386: needs debootstrap (apt-get install debootstrap)" >&2; exit 1; }

if [ ! -x "$base/usr/bin/dpkg-buildpackage" ]; then
    echo "package-i386: making the i386 base in $base (once)..." >&2
    rm -rf --one-file-system "$base.tmp"
    debootstrap --arch=i386 --variant=minbase --include=build-essential,debhelper,fakeroot \
        bookworm "$base.tmp" "$mirror" >/dev/null
    rm -f "$base.tmp"/var/cache/apt/archives/*.deb
    mv "$base.tmp" "$base"
fi

root=$(mktemp -d /var/tmp/kep-i386-build.XXXXXX)
cleanup() {
    for m in var/cache/apt/archives dev/pts dev proc; do
        if mountpoint -q "$root/$m"; then umount -l "$root/$m"; fi
    done
    rm -rf --one-file-system "$root"
}
trap cleanup EXIT
cp -a "$base/." "$root/"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mkdir -p "$debs" "$root/build"
cp -a "$src" "$root/build/kep"
mount -t proc proc "$root/proc"
mount --bind /dev "$root/dev"
mount --bind /dev/pts "$root/dev/pts"
mount --bind "$debs" "$root/var/cache/apt/archives"

in_root() {
    setarch i686 chroot "$root" /usr/bin/env -i HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
        PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}
in_root sh -c 'apt-get update -q >/dev/null && apt-get build-dep -y -q ./build/kep >/dev/null'
in_root sh -c "cd /build/kep && dpkg-buildpackage -b -us -uc -j$(nproc)"
cp "$root"/build/*.deb "$root"/build/*.changes "$root"/build/*.buildinfo "$src/.."
