#!/usr/bin/env bash
# Draws each state of tav-host's window into OUTDIR (default docs/images) with real runs against
# kep-sim: checking, up to date, offline with cached answers, unreachable, cancelled,
# no products. Usage: tools/window-pictures.sh [OUTDIR] [BUILD_DIR]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$(mkdir -p "${1:-$root/docs/images}" && cd "${1:-$root/docs/images}" && pwd)
bin="$root/${2:-build}/bin"

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kep-pictures.XXXXXX")
sim_pid=""
stop_sim() {
    if [ -n "$sim_pid" ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
    sim_pid=""
}
trap 'stop_sim; rm -rf "$tmp"' EXIT

# start_sim FIXTURES [ARGS...]: sets url
start_sim() {
    stop_sim
    "$bin/kep-sim" --fixtures "$@" >"$tmp/sim.out" 2>/dev/null &
    sim_pid=$!
    url=""
    for _ in $(seq 100); do
        url=$(sed -n 's/^kep-sim listening on //p' "$tmp/sim.out")
        [ -n "$url" ] && return 0
        sleep 0.1
    done
    echo "window-pictures: kep-sim did not start" >&2
    exit 1
}

# fresh_tree [db|none|current]: a new HOME, system database and cache
fresh_tree() {
    rm -rf "$tmp/tree"
    mkdir -p "$tmp/tree/home/vasko/tav/db" "$tmp/tree/sysdb" "$tmp/tree/work"
    case "$1" in
        db)
            cp "$root/examples/db/user/"* "$tmp/tree/home/vasko/tav/db/"
            cp "$root/examples/db/system/"* "$tmp/tree/sysdb/" ;;
        current)
            printf 'ProductName=Vasko Current 2026\nMediaID=MEDIA-CURRENT\nUpdateID=1\n' \
                >"$tmp/tree/sysdb/{A1D0C0DE-0009-4000-8000-000000000009}.ini" ;;
    esac
}

# host PICTURE [ARGS...]: one tav-host run in the tree; its status is not the point here
host() {
    local picture=$1
    shift
    (cd "$tmp/tree/work" && env HOME="$tmp/tree/home" TAV_SYSTEM_DB_DIR="$tmp/tree/sysdb" \
        XDG_CACHE_HOME="$tmp/tree/home/.cache" QT_QPA_PLATFORM=offscreen \
        "$bin/tav-host" --quiet ${picture:+--gui --screenshot "$out/$picture"} "$@" >/dev/null 2>>"$tmp/host.err") || true
    [ -z "$picture" ] || echo "window-pictures: $out/$picture" >&2
}

# A service that knows the one product and offers nothing for it.
mkdir -p "$tmp/fixtures/MEDIA-CURRENT"
printf '<product_info><return_code>0</return_code><format>2.0</format><updates/><product_news/></product_info>\n' \
    >"$tmp/fixtures/MEDIA-CURRENT/default.xml"

fresh_tree db
start_sim "$root/examples/service" --delay-ms 700
host window-checking.png --set "KepWebServiceUrl=$url" --screenshot-after 1800
start_sim "$root/examples/service" --delay-ms 3000
host window-cancelled.png --set "KepWebServiceUrl=$url" --cancel-after 500

# One product answered once, then all of them with the service gone: the one from the cache,
# the others from nowhere.
fresh_tree db
start_sim "$root/examples/service"
mv "$tmp/tree/sysdb" "$tmp/tree/sysdb.later"
mkdir "$tmp/tree/sysdb"
host "" --set "KepWebServiceUrl=$url"
rm -rf "$tmp/tree/sysdb"
mv "$tmp/tree/sysdb.later" "$tmp/tree/sysdb"
stop_sim
host window-offline-cached.png --set "KepWebServiceUrl=http://127.0.0.1:1/"

fresh_tree db
host window-unreachable.png --set "KepWebServiceUrl=http://127.0.0.1:1/"

fresh_tree current
start_sim "$tmp/fixtures"
host window-up-to-date.png --set "KepWebServiceUrl=$url"

fresh_tree none
host window-no-products.png --set "KepWebServiceUrl=$url"
