#!/usr/bin/env bash
# Installs the amd64 packages of dist/ on a brand-new Debian 12 system (a minimal debootstrap
# root, made once and cached under /var/tmp, copied fresh for every run), runs the demo data
# with kep-sim and tav-host from /usr, then purges the packages and checks that nothing of
# theirs is left. Needs root (debootstrap, chroot).
#
#   tests/install/fresh-install.sh [DIST-DIR]      default: dist
set -euo pipefail
dist=$(cd "${1:-dist}" && pwd)
packages=(kep-tools tav-plugin-kep libtavcore.shared1 libtav.dataprovider.kep.regtool1)
fail() { echo "fresh-install: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || fail "needs root (debootstrap, chroot)"
ls "$dist"/*_amd64.deb >/dev/null 2>&1 || fail "no amd64 packages in $dist (./dev package)"
source "$(dirname "$0")/../../tools/debian-root.sh"

debian_root_base amd64 /var/tmp/kep-install-base-amd64
debian_root_enter /var/tmp/kep-install-base-amd64
mkdir -p "$root/debs"
cp "$dist"/*_amd64.deb "$root/debs/"
# Every file and link of the system, apart from the package manager's own state and caches.
snapshot() {
    in_root find / -xdev \( -path /proc -o -path /dev -o -path /tmp -o -path /debs -o -path /root \
        -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/cache -o -path /var/log \) -prune \
        -o ! -type d -print | sort
}

install_packages() {
    in_root sh -c 'apt-get install -y -q ./debs/*.deb' >"$root/tmp/install.log" ||
        { cat "$root/tmp/install.log"; fail "apt-get install failed"; }
}
purge_packages() { in_root apt-get purge -y -q "${packages[@]}" >/dev/null; }
in_root apt-get update -q >/dev/null
# The first installation brings the dependencies, whose own set-up stays; the system with them
# and without the packages is the one the purge must give back.
install_packages
purge_packages
snapshot >"$root/tmp/before"
install_packages
in_root dpkg-query -W "${packages[@]}"
for package in "${packages[@]}"; do in_root dpkg -L "$package"; done | sort -u >"$root/tmp/listed"

# The demo: the bundled product database in a temporary home and system database, the
# simulator on a free loopback port, one run of the installed host with its default plug-in.
cat >"$root/tmp/demo.sh" <<'DEMO'
set -eu
examples=/usr/share/kep/examples
export HOME=/tmp/demo/home TAV_SYSTEM_DB_DIR=/tmp/demo/sysdb QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME/vasko/tav/db" "$TAV_SYSTEM_DB_DIR"
cp "$examples"/db/user/* "$HOME/vasko/tav/db/"
cp "$examples"/db/system/* "$TAV_SYSTEM_DB_DIR/"
: >/tmp/demo/sim.out
kep-sim --fixtures "$examples/service" --port 0 >/tmp/demo/sim.out 2>&1 &
sim=$!
trap 'kill $sim 2>/dev/null' EXIT
url=""
for _ in $(seq 100); do
    url=$(sed -n 's/^kep-sim listening on //p' /tmp/demo/sim.out)
    [ -n "$url" ] && break
    sleep 0.1
done
[ -n "$url" ] || { cat /tmp/demo/sim.out; echo "kep-sim did not start" >&2; exit 1; }
command -v tav-host kep-sim
tav-host --set "KepWebServiceUrl=$url" --summary >/tmp/demo/answer.xml
cat /tmp/demo/answer.xml
grep -q '<id>' /tmp/demo/answer.xml
# Root converts the previous generation's record into the system database.
ls "$TAV_SYSTEM_DB_DIR" | grep -q '{A1D0C0DE-0003-4000-8000-000000000003}.ini'
man -w tav-host kep-sim 2>/dev/null || zcat /usr/share/man/man1/tav-host.1.gz | grep -q '^\.SH'
DEMO
in_root bash /tmp/demo.sh || fail "the demo did not run from the installed packages"

while read -r path; do
    [ -d "$root$path" ] && [ ! -L "$root$path" ] || echo "$path"
done <"$root/tmp/listed" | sort >"$root/tmp/ours"
[ -s "$root/tmp/ours" ] || fail "dpkg listed no files of the packages"
purge_packages
snapshot >"$root/tmp/purged"
left=$(comm -12 "$root/tmp/ours" "$root/tmp/purged")
[ -z "$left" ] || fail "left behind by the purge: $left"
changed=$(diff "$root/tmp/before" "$root/tmp/purged" || true)
[ -z "$changed" ] || fail "the system differs after the purge: $changed"
for dir in /usr/lib/x86_64-linux-gnu/tav /usr/share/kep /usr/share/doc/kep-tools /usr/share/doc/tav-plugin-kep; do
    [ ! -e "$root$dir" ] || fail "left behind by the purge: $dir"
done
echo "fresh-install: installed, ran the demo and purged without a trace ($(wc -l <"$root/tmp/ours") files of ${packages[*]})"
