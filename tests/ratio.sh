#!/usr/bin/env bash
# Non-blank lines of tests/ against those of the code (benchmarks excluded);
# fails when the tests pass the given share (default 35 %).
set -euo pipefail
cd "$(dirname "$0")/.."
limit=${1:-35}
count() {
    find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' -o -name '*.java' -o -name '*.sh' \
        -o -name '*.txt' -o -name '*.cmake' -o -name '*.py' -o -name '*.tsv' -o -name '*.dict' \) -print0 |
        xargs -0 cat | grep -cv '^[[:space:]]*$'
}
tests=$(count tests)
code=$(count common osupt ocnet ksintf ksd tools java fuzz)
percent=$((tests * 1000 / code))
echo "tests: $tests non-blank lines, code: $code, ratio $((percent / 10)).$((percent % 10)) % (limit $limit %)"
[ $((tests * 100)) -le $((code * limit)) ]
