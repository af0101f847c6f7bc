#!/usr/bin/env bash
# Builds the i386 packages, suites included, in a clean Debian 12 i386 root: a minimal base
# made once and cached under /var/tmp, copied fresh for every build, with the build
# dependencies of debian/control installed inside the copy. The amd64 kernel runs it directly.
# Needs root.
#
#   tools/package-i386.sh SOURCE-DIR     (the packages land beside it, as dpkg-buildpackage puts them)
set -euo pipefail
src=$(cd "$1" && pwd)
debs=/var/tmp/kep-bookworm-i386-debs   # downloaded packages, kept between builds
[ "$(id -u)" -eq 0 ] || { echo "package-i386: needs root (debootstrap, chroot)" >&2; exit 1; }
source "$(dirname "$0")/debian-root.sh"

debian_root_base i386 /var/tmp/kep-bookworm-i386 build-essential,debhelper,fakeroot
debian_root_enter /var/tmp/kep-bookworm-i386
debian_root_personality=i686
mkdir -p "$debs" "$root/build"
mount --bind "$debs" "$root/var/cache/apt/archives"
cp -a "$src" "$root/build/kep"
in_root sh -c 'apt-get update -q >/dev/null && apt-get build-dep -y -q ./build/kep >/dev/null'
in_root sh -c "cd /build/kep && dpkg-buildpackage -b -us -uc -j$(nproc)"
cp "$root"/build/*.deb "$root"/build/*.changes "$root"/build/*.buildinfo "$src/.."
