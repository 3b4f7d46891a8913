#!/bin/bash
# Builds everything and runs every test under Wine, with the proxies the tests start themselves.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/tools/setup-debian.sh"
"$root/tools/build.sh"
cd "${DX_BUILD_DIR:-$root/build}"
ctest --output-on-failure --timeout 600
