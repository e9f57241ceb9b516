#!/usr/bin/env bash
# Breaks the code with one fault of faults.tsv at a time, rebuilds what the
# fault names, runs the tests its regex names and records which went red;
# the file is restored (and rebuilt) before the next fault. Slow: not for CI.
#
#   tests/faults/run.sh [-B build-dir] [-a] [name ...]
#     -B  build tree (configured here if missing; default build-faults)
#     -a  run the whole suite for every fault instead of its regex
#     name  only these faults
# Prints one line per fault and a score; the result is also in <build-dir>/faults.out.
set -uo pipefail
cd "$(dirname "$0")/../.."
build=build-faults
all=0
while getopts B:a opt; do
    case $opt in
        B) build=$OPTARG ;;
        a) all=1 ;;
        *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))

if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKS_BUILD_BENCH=OFF >/dev/null || exit 1
fi
nice -n 10 cmake --build "$build" -j2 >/dev/null || { echo "the unbroken tree does not build" >&2; exit 1; }

out=$build/faults.out
: >"$out"
saved=$(mktemp)
current=
restore() { [ -n "$current" ] && cp "$saved" "$current"; current=; }
trap 'restore; rm -f "$saved"' EXIT
trap 'exit 130' INT TERM

caught=0 total=0
while IFS=$'\t' read -r name file script targets regex what; do
    case $name in '' | '#'*) continue ;; esac
    if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx -- "$name"; then continue; fi
    total=$((total + 1))
    build_args=()
    cp "$file" "$saved"
    current=$file
    sed -i -e "$script" "$file"
    if cmp -s "$file" "$saved"; then
        verdict="NOT APPLIED"
    else
        [ "$targets" = all ] || for t in $targets; do build_args+=(--target "$t"); done
        if ! nice -n 10 cmake --build "$build" -j2 "${build_args[@]}" >"$build/fault-build.log" 2>&1; then
            verdict="BUILD FAILED"
        else
            filter=(-R "$regex")
            [ $all = 1 ] && filter=()
            red=$(nice -n 10 ctest --test-dir "$build" -j2 --timeout 90 "${filter[@]}" 2>&1 |
                sed -n '/The following tests FAILED/,$p' | sed -n 's/^[[:space:]]*[0-9]* - \([^ ]*\).*/\1/p' |
                tr '\n' ' ')
            if [ -n "$red" ]; then
                verdict="caught by: $red"
                caught=$((caught + 1))
            else
                verdict="SURVIVED"
            fi
        fi
    fi
    restore
    nice -n 10 cmake --build "$build" -j2 "${build_args[@]}" >/dev/null 2>&1
    printf '%-28s %s\n' "$name" "$verdict" | tee -a "$out"
done <tests/faults/faults.tsv
echo "score: $caught of $total caught" | tee -a "$out"
[ "$caught" = "$total" ]
