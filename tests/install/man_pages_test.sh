#!/bin/bash
# Renders each manual page and fails on any warning from the formatter.
set -u
status=0
for page in "$@"; do
    warnings=$(groff -man -ww -z "$page" 2>&1)
    if command -v man >/dev/null; then
        warnings+=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    fi
    if [ -n "$warnings" ]; then
        echo "FAIL: $page:" >&2
        echo "$warnings" >&2
        status=1
    fi
done
exit $status
