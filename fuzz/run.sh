#!/bin/bash
# Runs one fuzzer for a bounded time on a copy of its committed seed corpus; fails on any finding.
# Usage: run.sh FUZZER_BINARY CORPUS_DIR SECONDS
set -euo pipefail
binary=$1 corpus=$2 seconds=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$corpus"/. "$work"/ 2>/dev/null || true
cd "$work"
"$binary" -max_total_time="$seconds" -max_len=2048 -timeout=10 -print_final_stats=1 . 2>&1 | tail -12
