#!/bin/bash
# Loads the ksctl completion into a plain bash and asks it to complete a few
# command lines; prints what it offered when a check fails.
set -u
source "$1" || { echo "FAIL: completion script does not load" >&2; exit 1; }

status=0
expect() {  # expect "<words...>" <word that must be offered> [<word that must not be>]
    local line=$1 want=$2 unwanted=${3:-}
    read -r -a COMP_WORDS <<<"$line"
    [ "${line: -1}" = " " ] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _ksctl
    local offered=" ${COMPREPLY[*]} "
    if [[ $offered != *" $want "* ]] || { [ -n "$unwanted" ] && [[ $offered == *" $unwanted "* ]]; }; then
        echo "FAIL: '$line' offered [${COMPREPLY[*]}], wanted $want${unwanted:+, not $unwanted}" >&2
        status=1
    fi
}

expect "ksctl st" status subscribe
expect "ksctl --pipe p jo" job
expect "ksctl job c" create
expect "ksctl --json job " list status
expect "ksctl task schedule n prog --log /tmp/x --" --dir
expect "ksctl task schedule n prog --every " weekly
expect "ksctl task schedule n prog --dir /" /tmp
exit $status
