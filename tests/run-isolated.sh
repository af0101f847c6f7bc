#!/bin/sh
# Runs one test program with a brand-new HOME, system product database and cache, so that
# no test ever sees the real ones, and removes them afterwards.
tmp=$(mktemp -d "${TMPDIR:-/tmp}/kep-test.XXXXXX") || exit 1
trap 'chmod -R u+rwX "$tmp" 2>/dev/null; rm -rf "$tmp"' EXIT
mkdir -p "$tmp/home" "$tmp/sysdb"
# Suites talk to loopback only: a proxy from the environment must not sit in between.
unset http_proxy https_proxy HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY
HOME="$tmp/home" TAV_SYSTEM_DB_DIR="$tmp/sysdb" XDG_CACHE_HOME="$tmp/home/.cache" \
XDG_CONFIG_HOME="$tmp/home/.config" QT_QPA_PLATFORM=offscreen "$@"
