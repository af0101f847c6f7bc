#!/bin/sh
# Installs the build into a temporary prefix and runs the installed host, plug-in, libraries
# and simulator from there, with nothing of the build tree on any search path and without the
# unversioned development link of the registration tool, which no runtime package ships.
#   check-install.sh BUILD-DIR LIBDIR RPATH(ON|OFF) MANPAGES(ON|OFF)
set -eu
build=$1
libdir=$2
rpath=$3
manpages=$4
prefix=$(mktemp -d "${TMPDIR:-/tmp}/kep-install.XXXXXX")
sim_pid=""
cleanup() { [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null; rm -rf "$prefix"; }
trap cleanup EXIT
fail() { echo "check-install: $*" >&2; exit 1; }
is_on() { case "$1" in ON|on|1|TRUE|true|YES|yes) return 0 ;; *) return 1 ;; esac; }

cmake --install "$build" --prefix "$prefix" >/dev/null
plugin="$libdir/tav/plugins/libkepdataprovider.so"
for f in bin/tav-host bin/kep-sim "$libdir/libtavcore.shared.so.1" "$libdir/libtav.dataprovider.kep.regtool.so.1" \
         "$plugin" share/kep/examples/service/README.md; do
    [ -e "$prefix/$f" ] || fail "missing $f"
done
if is_on "$manpages"; then
    for page in tav-host kep-sim; do
        grep -q '^\.SH OPTIONS\|^\.SH DESCRIPTION' "$prefix/share/man/man1/$page.1" 2>/dev/null || fail "no manual page for $page"
    done
fi
rm -f "$prefix/$libdir/libtav.dataprovider.kep.regtool.so"

installed="bin/tav-host bin/kep-sim $plugin $libdir/libtavcore.shared.so.1 $libdir/libtav.dataprovider.kep.regtool.so.1"
for f in $installed; do
    paths=$(readelf -d "$prefix/$f" | sed -n 's/.*R\(UN\)\{0,1\}PATH.*\[\(.*\)\]/\2/p')
    case "$paths" in *"$build"*) fail "$f still points into the build tree: $paths" ;; esac
    if ! is_on "$rpath" && [ -n "$paths" ]; then fail "$f carries a search path: $paths"; fi
done
if is_on "$rpath"; then
    unset LD_LIBRARY_PATH
else
    # Installed under /usr, the loader's own path holds the libraries: stand in for it.
    export LD_LIBRARY_PATH="$prefix/$libdir"
fi

mkdir -p "$HOME/vasko/tav/db"
printf '[General]\nMediaID=MEDIA-TOOLS-2013\nUpdateID=310\n' >"$HOME/vasko/tav/db/{INSTALLED}.ini"
printf 'ProductCode={LEGACY}\nProductName=Legacy\nVersion=1\n' >"$HOME/vasko/tav/db/{LEGACY}.properties"
: >"$prefix/sim.out"
"$prefix/bin/kep-sim" --fixtures "$prefix/share/kep/examples/service" --port 0 >"$prefix/sim.out" &
sim_pid=$!
url=""
for _ in $(seq 100); do
    url=$(sed -n 's/^kep-sim listening on //p' "$prefix/sim.out")
    [ -n "$url" ] && break
    sleep 0.1
done
[ -n "$url" ] || fail "installed kep-sim did not start"
status=0
"$prefix/bin/tav-host" --set "KepWebServiceUrl=$url" >"$prefix/out.xml" 2>"$prefix/err.txt" || status=$?
[ "$status" -eq 0 ] || { cat "$prefix/err.txt" >&2; fail "installed tav-host exited $status"; }
grep -q '<id>' "$prefix/out.xml" || fail "no updates in the answer"
# The legacy record was converted through the registration tool, found by its versioned name.
ls "$HOME/vasko/tav/db" "$TAV_SYSTEM_DB_DIR" | grep -q '{LEGACY}.ini' || fail "legacy record not converted"
echo "check-install: installed layout works ($libdir, RPATH $rpath)"
