#!/usr/bin/env bash
# ./dev demo: the simulator on a free port, a temporary product database, one run of the
# reference host, the consolidated XML and a short summary; everything is removed afterwards.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir="$root/${1:-build}"
bin="$build_dir/bin"
[ $# -gt 0 ] && shift

# --tls serves HTTPS with certificates made for this run and has the host trust their CA; the
# remaining arguments go to tav-host.
tls=0
host_args=()
for arg in "$@"; do
    if [ "$arg" = --tls ]; then tls=1; else host_args+=("$arg"); fi
done
set -- ${host_args[@]+"${host_args[@]}"}

# --gui opens the window where there is a display; without one it is drawn into a picture.
platform=(QT_QPA_PLATFORM=offscreen)
picture=""
if [[ " $* " == *" --gui "* ]]; then
    if [[ " $* " == *" --screenshot "* ]]; then
        :
    elif [ -n "${DISPLAY:-}" ] || [ -n "${WAYLAND_DISPLAY:-}" ]; then
        platform=()
        echo "demo: the window shows the demo data; close it to see the summary" >&2
    else
        picture="$build_dir/demo-window.png"
        host_args+=(--screenshot "$picture")
        echo "demo: no display (DISPLAY and WAYLAND_DISPLAY are unset): drawing the window into $picture" >&2
    fi
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kep-demo.XXXXXX")
sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
    rm -rf "$tmp"
}
trap cleanup EXIT

mkdir -p "$tmp/home/vasko/tav/db" "$tmp/sysdb" "$tmp/work"
cp "$root/examples/db/user/"* "$tmp/home/vasko/tav/db/"
cp "$root/examples/db/system/"* "$tmp/sysdb/"

sim_args=()
if [ "$tls" -eq 1 ]; then
    "$root/tools/kep-sim/make-test-certs.sh" "$tmp/certs"
    sim_args=(--tls "$tmp/certs/server.pem" "$tmp/certs/server.key")
    host_args+=(--ca-file "$tmp/certs/ca.pem")
fi
"$bin/kep-sim" --fixtures "$root/examples/service" --port 0 ${sim_args[@]+"${sim_args[@]}"} >"$tmp/sim.out" 2>"$tmp/sim.err" &
sim_pid=$!
url=""
for _ in $(seq 100); do
    url=$(sed -n 's/^kep-sim listening on //p' "$tmp/sim.out")
    [ -n "$url" ] && break
    kill -0 "$sim_pid" 2>/dev/null || { cat "$tmp/sim.err" >&2; echo "demo: kep-sim did not start" >&2; exit 1; }
    sleep 0.1
done
[ -n "$url" ] || { echo "demo: kep-sim did not report its address" >&2; exit 1; }

progress=(--progress)
[[ " $* " == *" --quiet "* ]] && progress=()
started=$(date +%s%N)
set +e
# The working directory is a scratch folder: for an auto-uninstalled record the plug-in deletes a
# file named after its guid in the working directory. tav-host's own lines (progress, warnings)
# are shown as they come; its whole standard error is kept for the summary.
(cd "$tmp/work" && env HOME="$tmp/home" TAV_SYSTEM_DB_DIR="$tmp/sysdb" XDG_CACHE_HOME="$tmp/home/.cache" \
    "${platform[@]}" "$bin/tav-host" --set "KepWebServiceUrl=$url" --set ShowTestUpdates=0 \
    --summary "${progress[@]}" ${host_args[@]+"${host_args[@]}"} 2>&1 >"$tmp/answer.xml") \
    | tee "$tmp/host.err" | { grep --line-buffered '^tav-host: ' >&2; true; }
status=${PIPESTATUS[0]}
set -e
elapsed_ms=$(( ($(date +%s%N) - started) / 1000000 ))

cat "$tmp/answer.xml"
echo
echo "== Demo summary"
echo "service:        $url (kep-sim, fixtures from examples/service)"
[ "$tls" -eq 1 ] && echo "tls:            certificate for 127.0.0.1 signed by a CA made for this run (tav-host --ca-file)"
echo "product records: $(ls "$tmp/home/vasko/tav/db" | grep -c '\.ini$') user, $(ls "$tmp/sysdb" | grep -c '\.ini$') system after conversion"
sed -n 's/^summary: /  /p' "$tmp/host.err"
sed -n 's/^tav-host: first answer shown after /window:         first answer shown after /p' "$tmp/host.err"
[ -n "$picture" ] && [ -f "$picture" ] && echo "window picture: $picture"
case $status in
    0) meaning="done" ;; 2) meaning="cancelled" ;; 5) meaning="no registered products" ;;
    3) meaning="some products got no answer from the service (--strict)" ;; *) meaning="failed" ;;
esac
warnings=$(grep -c '^tav-host: warning: ' "$tmp/host.err" || true)
[ "$warnings" -gt 0 ] && echo "warnings:       $warnings (shown above, on standard error)"
echo "answer:         $(grep -c '<update>' "$tmp/answer.xml" || true) updates, $(grep -c '<message>' "$tmp/answer.xml" || true) news; status $status ($meaning), ${elapsed_ms} ms"
if [ "$status" -ne 0 ] && [ "$status" -ne 2 ] && [ "$status" -ne 3 ] && [ "$status" -ne 5 ]; then
    grep -v '^summary: ' "$tmp/host.err" >&2 || true
fi
exit "$status"
