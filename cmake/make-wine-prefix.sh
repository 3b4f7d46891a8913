#!/bin/sh
# Makes a headless Wine prefix: hidden windows, message loops and WSAAsyncSelect work without a display.
# Usage: make-wine-prefix.sh DIR [--heap-check]
# --heap-check turns on Wine's heap checks for every process of the prefix (GlobalFlag 0x70: tail and
# free checking, parameter validation); err+heap in WINEDEBUG then reports what they find.
set -eu
prefix="$1"
heap_check="${2:-}"
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
rm -rf "$prefix"
mkdir -p "$prefix"
wineboot -i >"$prefix.boot.log" 2>&1
wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1
# The unit tests read the true Windows version behind the 6.2 that Windows 10 reports.
wine reg add 'HKCU\Software\Wine\AppDefaults\dxsocks_unit_tests.exe' /v Version /d win10 /f >/dev/null 2>&1
# Copies of the dialog tests, each seeing its own Windows: the arrow buttons draw by version.
for windows in win2k winxp vista win10; do
  wine reg add "HKCU\\Software\\Wine\\AppDefaults\\dxsocks_ui_tests_$windows.exe" /v Version /d $windows /f \
    >/dev/null 2>&1
done
# Copies of the configuration dialogs' tests, the same way.
for windows in win2k winxp vista win10; do
  wine reg add "HKCU\\Software\\Wine\\AppDefaults\\dxdialog_tests_$windows.exe" /v Version /d $windows /f \
    >/dev/null 2>&1
done
if [ "$heap_check" = --heap-check ]; then
  wine reg add 'HKLM\System\CurrentControlSet\Control\Session Manager' /v GlobalFlag /t REG_DWORD /d 0x70 /f \
    >/dev/null 2>&1
fi
wineserver -w
touch "$prefix/.dxsocks-ready"
