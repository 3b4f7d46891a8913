#!/bin/sh
# Runs a Windows test program under Wine in the build's prefix (WINEPREFIX is set per test).
: "${WINEPREFIX:?WINEPREFIX must name the build's Wine prefix}"
export WINEDEBUG="${WINEDEBUG:--all}"
exec wine "$@"
