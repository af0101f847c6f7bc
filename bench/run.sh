#!/usr/bin/env bash
# ./dev bench: every benchmark against its reference in the same run, written to BENCHMARKS.md.
# usage: bench/run.sh BUILD_DIR [--quick]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=$(cd "${1:-build-release}" && pwd)
[ $# -gt 0 ] && shift
bin="$build_dir/bin"
quick=()
[ "${1:-}" = --quick ] && quick=(--quick)

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kep-bench.XXXXXX")
sim_pid=""
cleanup() {
    [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
    rm -rf "$tmp"
}
trap cleanup EXIT
# Nothing here may touch the real home or system database.
export HOME="$tmp/home" TAV_SYSTEM_DB_DIR="$tmp/sysdb" XDG_CACHE_HOME="$tmp/home/.cache" QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME" "$TAV_SYSTEM_DB_DIR"

out="$tmp/report.md"
{
    echo "Written by \`./dev bench\` ($(date -u +%Y-%m-%d), $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg))."
    echo "Release build in \`$(basename "$build_dir")\`; every comparison runs ours and its reference in the same run,"
    echo "alternating, and reports the median ratio with (min .. max) over the rounds."
    echo
} >"$out"

echo "bench: end to end, scaling, memory (bench/e2e.py)" >&2
python3 "$root/bench/e2e.py" "$bin" "$tmp/e2e" "${quick[@]}" | tee -a "$out"

echo "bench: peak memory, where it goes (bench/memory.py)" >&2
python3 "$root/bench/memory.py" "$bin" "$tmp/memory" "${quick[@]}" | tee -a "$out"

echo "bench: over a link, through a delay relay (bench/link.py)" >&2
python3 "$root/bench/link.py" "$bin" "$tmp/link" "${quick[@]}" | tee -a "$out"

echo "bench: cancel latency in one process (bench_cancel)" >&2
{
    echo "### Cancel latency, in one process"
    echo
    echo "The plug-in in the main thread with its event loop, getData on a worker thread, cancelCurrentAction"
    echo "from a third thread while the first of two products waits on kep-sim --delay-ms 10000; timed from the"
    echo "cancel call to getData's return."
    echo
    echo '```'
    echo "\$ bench_cancel"
    (cd "$tmp" && "$bin/bench_cancel" "${quick[@]}" 2>&1 | sed -n 's/.*COMPARE //p')
    echo '```'
    echo
} | tee -a "$out"

echo "bench: reply pipeline against one DOM parse (bench_pipeline)" >&2
{
    echo "### Reply pipeline: SOAP clean-up, parse and consolidated document against one DOM parse"
    echo
    echo '```'
    echo "\$ bench_pipeline"
    (cd "$tmp" && "$bin/bench_pipeline" "${quick[@]}" 2>&1 | sed -n 's/.*COMPARE //p')
    echo '```'
    echo
} | tee -a "$out"

echo "bench: hostile answers within the bound (bench_hostile)" >&2
{
    echo "### Hostile answers within the 4 MiB bound: guard, clean-up, parse and document; cancel meanwhile"
    echo
    echo "Each answer as the service could send it, at most 4 MiB; \"refused\" is the markup guard's own time."
    echo "The cancel comes from a third thread while the slowest answer is being cleaned up, and is timed"
    echo "to getData's return. The aim is at most 2 s for each."
    echo
    echo '```'
    echo "\$ bench_hostile"
    (cd "$tmp" && "$bin/bench_hostile" "${quick[@]}" 2>&1 | sed -n 's/.*COMPARE //p')
    echo '```'
    echo
} | tee -a "$out"

echo "bench: reply cache inserts (bench_cache)" >&2
{
    echo "### Reply cache: one insert per answered product"
    echo
    echo '```'
    echo "\$ bench_cache"
    (cd "$tmp" && "$bin/bench_cache" "${quick[@]}" 2>&1 | sed -n 's/.*COMPARE //p')
    echo '```'
    echo
} | tee -a "$out"

echo "bench: local database (bench_localdb versusQSettings)" >&2
{
    echo "### Local database against plain QSettings over the same files"
    echo
    echo '```'
    echo "\$ bench_localdb versusQSettings"
    (cd "$tmp" && "$bin/bench_localdb" versusQSettings 2>&1 | sed -n 's/.*COMPARE //p')
    echo "\$ bench_localdb 'convertLegacy:1000 legacy products, first run'"
    (cd "$tmp" && "$bin/bench_localdb" "convertLegacy:1000 legacy products, first run" 2>&1 \
        | grep -A1 '^RESULT' | sed -n 's/^ *\([0-9,.]* msecs\) per iteration.*/first conversion of 1000 legacy products: \1/p')
    echo '```'
    echo
} | tee -a "$out"

echo "bench: reply parsing (bench_replyparse)" >&2
{
    echo "### Reply parsing, QBENCHMARK"
    echo
    echo '```'
    echo "\$ bench_replyparse"
    (cd "$tmp" && "$bin/bench_replyparse" 2>&1 | grep -A1 '^RESULT' | grep -v '^--')
    echo '```'
    echo
} | tee -a "$out"

echo "The benchmarks above took $SECONDS s of wall time (the build before them not included)." | tee -a "$out"

# The measured part of BENCHMARKS.md is replaced; the analysis around it stays.
report="$root/BENCHMARKS.md"
begin='<!-- measured: begin -->'
end='<!-- measured: end -->'
if [ -f "$report" ] && grep -qF "$begin" "$report" && grep -qF "$end" "$report"; then
    python3 - "$report" "$out" "$begin" "$end" <<'PY'
import sys
path, measured, begin, end = sys.argv[1:]
text = open(path, encoding='utf-8').read()
head, rest = text.split(begin, 1)
tail = rest.split(end, 1)[1]
body = open(measured, encoding='utf-8').read()
open(path, 'w', encoding='utf-8').write(head + begin + '\n' + body + end + tail)
PY
else
    { echo "$begin"; cat "$out"; echo "$end"; } >"$report"
fi
echo "bench: measurements written to $report" >&2
