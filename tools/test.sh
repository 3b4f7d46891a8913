#!/bin/bash
# Builds everything and runs every test under Wine, with the proxies the tests start themselves.
# CTest runs one test per core at a time; tests that must not overlap hold a resource lock
# (tests/CMakeLists.txt).
#   --quick   only the tests labelled quick: the loop to run after each change
# Other arguments go to ctest (e.g. -L dll, -R hostile_proxy_tests, -V).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
args=()
for arg in "$@"; do
  case "$arg" in
    --quick) args+=(-L quick) ;;
    *) args+=("$arg") ;;
  esac
done
"$root/tools/setup-debian.sh"
"$root/tools/build.sh"
cd "${DX_BUILD_DIR:-$root/build}"
ctest --output-on-failure --timeout 600 -j"$(nproc)" "${args[@]}"
