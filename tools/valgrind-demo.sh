#!/usr/bin/env bash
# Leak check of one demo run: tools/demo.sh exactly as ./dev demo runs it, with tav-host started
# under valgrind memcheck. Fails on any memcheck error or block definitely lost, apart from the
# Qt and system library blocks listed in tests/sanitizers/valgrind.supp.
# usage: tools/valgrind-demo.sh [BUILD_DIR] [tav-host args...]   (a build without sanitizers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir="$root/${1:-build}"
[ $# -gt 0 ] && shift
command -v valgrind >/dev/null || { echo "valgrind-demo: valgrind is not installed (apt-get install valgrind)" >&2; exit 1; }
if grep -q 'KEP_[AT]SAN:BOOL=ON' "$build_dir/CMakeCache.txt" 2>/dev/null; then
    echo "valgrind-demo: $build_dir is a sanitizer build; valgrind needs a plain one (./dev build)" >&2
    exit 1
fi

# A stand-in bin folder: the real kep-sim, and a tav-host that is valgrind running the real one
# (which still finds its plug-in and libraries beside itself).
tmp=$(mktemp -d "${TMPDIR:-/tmp}/kep-valgrind.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
report="$build_dir/valgrind-demo.log"
mkdir -p "$tmp/build/bin"
ln -s "$build_dir/bin/kep-sim" "$tmp/build/bin/kep-sim"
# QRegularExpression's JIT code (the --summary parser) is generated at run time, where memcheck
# cannot follow which bytes were initialised; Qt switches it off for exactly this case.
cat >"$tmp/build/bin/tav-host" <<WRAPPER
#!/bin/sh
QT_ENABLE_REGEXP_JIT=0 exec valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \\
    --error-exitcode=99 --num-callers=40 --fullpath-after= --suppressions="$root/tests/sanitizers/valgrind.supp" \\
    --log-file="$report" "$build_dir/bin/tav-host" "\$@"
WRAPPER
chmod +x "$tmp/build/bin/tav-host"

set +e
"$root/tools/demo.sh" "$(realpath --relative-to="$root" "$tmp/build")" "$@"
status=$?
set -e
echo "== valgrind memcheck of tav-host (report: $report)"
sed -n 's/^==[0-9]*== *\(definitely lost\|indirectly lost\|possibly lost\|still reachable\|suppressed\|ERROR SUMMARY\)/  \1/p' "$report"
# 2 is a cancelled run (--cancel-after MS), whose clean-up is worth checking too.
case $status in
    0|2) exit 0 ;;
    99) echo "valgrind-demo: memcheck found errors, see $report" >&2; exit 1 ;;
    *) echo "valgrind-demo: the demo failed (status $status)" >&2; exit 1 ;;
esac
