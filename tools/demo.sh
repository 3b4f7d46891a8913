#!/bin/bash
# The main job: a host program connects through DXSOCKS.DLL and a local SOCKS proxy to a local echo
# server, sends a line and prints what came back, with the library's log: once with SOCKS 4 on a
# blocking socket, once with SOCKS 5 on a non-blocking one.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${DX_BUILD_DIR:-$root/build}
"$root/tools/setup-debian.sh"
"$root/tools/build.sh" dxconnect wine_prefix

bench=$build/demo-bench
trap 'bash "$root/tests/fixtures/stop_bench.sh" "$bench"; WINEPREFIX="$build/wine-prefix" wineserver -k 2>/dev/null || true' EXIT
bash "$root/tests/fixtures/start_bench.sh" "$bench" >/dev/null
# shellcheck disable=SC1091
source "$bench/bench.env"

echo "SOCKS proxy (danted) on 127.0.0.1:$DANTE_PORT, echo server on 127.0.0.1:$ECHO_PORT"
for mode in "-t socks4" "-n -t socks5"; do
  echo
  echo "$ dxconnect -v $mode -x 127.0.0.1:$DANTE_PORT 127.0.0.1 $ECHO_PORT <<< 'hello through the proxy'"
  # shellcheck disable=SC2086
  echo "hello through the proxy" |
    WINEPREFIX="$build/wine-prefix" WINEDEBUG=-all wine "$build/bin/dxconnect.exe" -v -w 1 $mode \
      -x "127.0.0.1:$DANTE_PORT" 127.0.0.1 "$ECHO_PORT" 2>&1
done
