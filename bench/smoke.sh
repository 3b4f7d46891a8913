#!/bin/bash
# Runs one benchmark program briefly and checks only that it finishes and prints its table with the
# expected number of rows for its benchmark; no figure is judged.
# Usage: smoke.sh BENCHMARK ROWS PROGRAM [FLAGS...]   (under Wine, WINEPREFIX and DXTEST_BENCH set)
set -uo pipefail  # the status of a pipe is the program's, not tr's
benchmark=$1 rows=$2 program=$3
shift 3
output=$(wine "$program" "$@" 2>&1 | tr -d '\r')
status=$?
printf '%s\n' "$output"
fail() {
  echo "smoke: $*" >&2
  exit 1
}
((status == 0)) || fail "$(basename "$program") exited with $status"
grep -qxF '| Benchmark | Case | N | Median | p99 | Notes |' <<<"$output" || fail "no table header"
found=$(grep -c "^| $benchmark | " <<<"$output")
((found == rows)) || fail "$found rows of '$benchmark', expected $rows"
