#!/usr/bin/env bash
# Java notification path beside the C callback path, against one ksd started
# here: the same rate, the same machine, the same run.
# Usage: bench/java_nnc_bench.sh BUILD_DIR [rate/s] [seconds]
set -euo pipefail
build=$(cd "${1:?build directory}" && pwd)
rate=${2:-10000}
seconds=${3:-3}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'kill "$ksd" 2>/dev/null; wait "$ksd" 2>/dev/null; rm -rf "$work"' EXIT
sock=$work/ksd.sock
"$build/ksd/ksd" --foreground --pipe "$sock" --state-dir "$work/state" 2>"$work/ksd.log" &
ksd=$!
for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
export KSINTF_CONN_TYPE=pipe:$sock
jar=$build/java/ksintf.jar
javac -d "$work/classes" -cp "$jar" "$here/java/NncBench.java"
for _ in 1 2 3; do
  "$build/bench/nn_latency" "$rate" "$seconds"
  java -Dksintf.library="$build/ksintf/libksintf.so.3" -cp "$work/classes:$jar" NncBench "$rate" "$seconds"
done
