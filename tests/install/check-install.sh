#!/bin/sh
# Installs the build into a temporary prefix and runs the installed host, plug-in, libraries
# and simulator from there, with nothing of the build tree on any search path.
set -eu
build=$1
fixtures=$2
prefix=$(mktemp -d "${TMPDIR:-/tmp}/kep-install.XXXXXX")
sim_pid=""
cleanup() { [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null; rm -rf "$prefix"; }
trap cleanup EXIT
fail() { echo "check-install: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(cd "$prefix" && ls -d lib* | head -n 1)
for f in bin/tav-host bin/kep-sim "$libdir/libtavcore.shared.so.1" "$libdir/libtav.dataprovider.kep.regtool.so.1" \
         "$libdir/libtav.dataprovider.kep.regtool.so" "$libdir/tav/plugins/libkepdataprovider.so"; do
    [ -e "$prefix/$f" ] || fail "missing $f"
done
for f in bin/tav-host bin/kep-sim "$libdir/tav/plugins/libkepdataprovider.so"; do
    if readelf -d "$prefix/$f" | grep -E 'R(UN)?PATH' | grep -q "$build"; then fail "$f still points into the build tree"; fi
done
readelf -d "$prefix/bin/tav-host" | grep -q '(RPATH)' || fail "tav-host has no DT_RPATH: the registration tool would not be found"

mkdir -p "$HOME/vasko/tav/db"
printf '[General]\nMediaID=MEDIA-TOOLS-2013\nUpdateID=310\n' >"$HOME/vasko/tav/db/{INSTALLED}.ini"
printf 'ProductCode={LEGACY}\nProductName=Legacy\nVersion=1\n' >"$HOME/vasko/tav/db/{LEGACY}.properties"
"$prefix/bin/kep-sim" --fixtures "$fixtures" --port 0 >"$prefix/sim.out" &
sim_pid=$!
url=""
for _ in $(seq 100); do
    url=$(sed -n 's/^kep-sim listening on //p' "$prefix/sim.out")
    [ -n "$url" ] && break
    sleep 0.1
done
[ -n "$url" ] || fail "installed kep-sim did not start"
status=0
env -u LD_LIBRARY_PATH "$prefix/bin/tav-host" --set "KepWebServiceUrl=$url" >"$prefix/out.xml" 2>"$prefix/err.txt" || status=$?
[ "$status" -eq 0 ] || { cat "$prefix/err.txt" >&2; fail "installed tav-host exited $status"; }
grep -q '<id>' "$prefix/out.xml" || fail "no updates in the answer"
# The legacy record was converted through the registration tool, found by its base name.
ls "$HOME/vasko/tav/db" "$TAV_SYSTEM_DB_DIR" | grep -q '{LEGACY}.ini' || fail "legacy record not converted"
echo "check-install: installed layout works ($libdir)"
