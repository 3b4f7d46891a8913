#!/bin/bash
# Configures the cross build in build/ (or $DX_BUILD_DIR) and builds the given targets (all by default).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${DX_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
if (($#)); then
  for target in "$@"; do cmake --build "$build" -j"$(nproc)" --target "$target"; done
else
  cmake --build "$build" -j"$(nproc)"
fi
