#!/bin/bash
# The main job: a host program connects through DXSOCKS.DLL and a local SOCKS proxy to a local echo
# server, sends a line and prints what came back, with the library's log: once with SOCKS 4 on a
# blocking socket and the proxy named on the command line, once on a non-blocking socket with the
# proxy that the settings file's map picks (SOCKS 5).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${DX_BUILD_DIR:-$root/build}
"$root/tools/setup-debian.sh"
"$root/tools/build.sh" dxconnect wine_prefix

export WINEPREFIX="$build/wine-prefix" WINEDEBUG=-all
bench=$build/demo-bench
appdata=$(winepath -u "$(wine cmd /c echo %APPDATA% 2>/dev/null | tr -d '\r')")
settings="$appdata/Zelmont/Verdane/Settings.xml"
saved=$(mktemp)
had_settings=0
if [ -f "$settings" ]; then cp "$settings" "$saved"; had_settings=1; fi
restore() {
  if [ "$had_settings" = 1 ]; then cp "$saved" "$settings"; else rm -f "$settings"; fi
  rm -f "$saved"
}
trap 'restore; bash "$root/tests/fixtures/stop_bench.sh" "$bench"; wineserver -k 2>/dev/null || true' EXIT
bash "$root/tests/fixtures/start_bench.sh" "$bench" >/dev/null
# shellcheck disable=SC1091
source "$bench/bench.env"

echo "SOCKS proxy (danted) on 127.0.0.1:$DANTE_PORT, echo server on 127.0.0.1:$ECHO_PORT"
echo
echo "$ dxconnect -v -t socks4 -x 127.0.0.1:$DANTE_PORT 127.0.0.1 $ECHO_PORT <<< 'hello through the proxy'"
echo "hello through the proxy" |
  wine "$build/bin/dxconnect.exe" -v -w 1 -t socks4 -x "127.0.0.1:$DANTE_PORT" 127.0.0.1 "$ECHO_PORT" 2>&1

# The settings file: one SOCKS map, the default one, to danted with SOCKS 5.
mkdir -p "$(dirname "$settings")"
printf '%s' '<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE Settings>
<Settings version="25..2..0"><Proxies><Proxy type="SOCKS"><Maps count="0"><Map id="Default">'\
'<BasicAuthentication value="0"/><ProtocolVersion value="5"/><ProxyAddress value="127.0.0.1"/><ProxyPort value="'"$DANTE_PORT"'"/>'\
'<ProxyUser value=""/><UseProxy value="1"/></Map></Maps></Proxy></Proxies></Settings>' >"$settings"
echo
echo "Settings file $settings: every destination through 127.0.0.1:$DANTE_PORT, SOCKS 5"
echo "$ dxconnect -d -t socks5 127.0.0.1 $ECHO_PORT"
wine "$build/bin/dxconnect.exe" -d -t socks5 127.0.0.1 "$ECHO_PORT" 2>&1
echo
echo "$ dxconnect -v -n -t socks5 127.0.0.1 $ECHO_PORT <<< 'hello through the map'"
echo "hello through the map" |
  wine "$build/bin/dxconnect.exe" -v -w 1 -n -t socks5 127.0.0.1 "$ECHO_PORT" 2>&1
