#!/bin/sh
# Makes a headless Wine prefix: hidden windows, message loops and WSAAsyncSelect work without a display.
set -eu
prefix="$1"
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
rm -rf "$prefix"
mkdir -p "$prefix"
wineboot -i >"$prefix.boot.log" 2>&1
wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1
# The unit tests read the true Windows version behind the 6.2 that Windows 10 reports.
wine reg add 'HKCU\Software\Wine\AppDefaults\dxsocks_unit_tests.exe' /v Version /d win10 /f >/dev/null 2>&1
wineserver -w
touch "$prefix/.dxsocks-ready"
