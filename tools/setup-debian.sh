#!/bin/bash
# Installs, as root on Debian, what building and testing the library needs, where it is missing:
# the cross compiler, Wine, and the real proxies the tests talk to.
set -euo pipefail
packages=(
  cmake make g++ python3 googletest clang libclang-rt-dev
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  wine wine64
  dante-server microsocks tinyproxy squid apache2-utils
)
"$(dirname "$0")/ensure-packages.sh" "${packages[@]}"
