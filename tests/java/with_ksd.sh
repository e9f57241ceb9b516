#!/bin/bash
# Runs a command beside a ksd of its own on a socket path, with a fresh state
# directory; the ksd is up (ksctl reaches it) before the command starts.
# Usage: with_ksd.sh KSD KSCTL SOCKET COMMAND...
set -u
ksd=$1 ksctl=$2 socket=$3
shift 3
state=$(mktemp -d)
rm -f "$socket"
"$ksd" --foreground --pipe "$socket" --state-dir "$state/state" </dev/null &
pid=$!
trap 'kill $pid; wait $pid; rm -rf "$state"' EXIT
for _ in $(seq 200); do "$ksctl" --pipe "$socket" status >/dev/null 2>&1 && break; sleep 0.05; done
# The command's status is the script's.
"$@"
