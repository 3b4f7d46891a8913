#!/bin/bash
# Runs a test program under Wine with the heap's error channel on, and fails when Wine reports any
# heap error, even if the program itself passed: a block written after its free is found by Wine's
# checks at the next allocation or free near it, which the program never sees.
# Usage: heap_checked_run.sh PROGRAM [ARGS...]   (WINEPREFIX names a prefix with GlobalFlag 0x70)
set -uo pipefail
: "${WINEPREFIX:?WINEPREFIX must name the heap-checking prefix}"
program=$1
shift
log=$(mktemp /tmp/dxsocks-heapcheck.XXXXXX)
trap 'rm -f "$log"' EXIT
# The program asks for the checks itself (DXTEST_HEAP_CHECK): it fails at once when they are off.
# sed -u passes each line on at once: a run ended by the time-out still shows how far it came.
WINEDEBUG=-all,err+heap DXTEST_HEAP_CHECK=1 wine "$program" "$@" 2>&1 | sed -u 's/\r$//' | tee "$log"
status=${PIPESTATUS[0]}
errors=$(grep -c 'err:heap' "$log")
if ((errors > 0)); then
  echo "heap_checked_run: Wine reported $errors heap errors:" >&2
  grep -m 10 'err:heap' "$log" >&2
  exit 1
fi
if ((status != 0)); then
  echo "heap_checked_run: $(basename "$program") exited with $status" >&2
  exit 1
fi
echo "heap_checked_run: no heap error reported by Wine"
