#!/bin/bash
# Installs the build into a fresh prefix and has systemd-analyze check the
# installed unit: it verifies clean (its ExecStart and man page exist there)
# and its exposure stays at or below 5.0.
# Usage: unit_check_test.sh BUILD_DIR
set -eu
build=$1
work=$(mktemp -d "$build/unit-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
unit=$prefix/lib/systemd/system/ksd.service

# Documentation=man:ksd(8) is looked up with man(1).
if ! MANPATH=$prefix/share/man systemd-analyze verify "$unit" >"$work/verify.log" 2>&1 ||
    [ -s "$work/verify.log" ]; then
    echo "FAIL: systemd-analyze verify:" >&2
    cat "$work/verify.log" >&2
    exit 1
fi
if ! systemd-analyze security --offline=true --threshold=50 "$unit" >"$work/security.log" 2>&1; then
    echo "FAIL: exposure above 5.0:" >&2
    grep -E "✗|Overall" "$work/security.log" >&2
    exit 1
fi
grep Overall "$work/security.log"
