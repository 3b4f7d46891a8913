#!/bin/sh
# Keeps one persistent wineserver for the test run, so each test program starts fast.
# Output goes nowhere: CTest waits for every pipe of a test to close, and Wine's own background
# processes (services, explorer) inherit the pipes of the program that starts them, so they are
# started here, once, without any.
: "${WINEPREFIX:?}"
export WINEPREFIX WINEDEBUG=-all
case "$1" in
  # A server left over from a program run by hand would make -p fail: it goes first.
  # With a desktop keeper program (tests/fixtures/desktop_keeper.c), the desktop, too, starts here
  # and stays up until stop; 20 s at most for it to come up.
  start) wineserver -k </dev/null >/dev/null 2>&1; wineserver -w </dev/null >/dev/null 2>&1
         wineserver -p </dev/null >/dev/null 2>&1 && wine wineboot </dev/null >/dev/null 2>&1 || exit 1
         [ -n "${2:-}" ] || exit 0
         ready="$WINEPREFIX/desktop-keeper.ready"
         rm -f "$ready"
         wine "$2" "Z:$ready" </dev/null >/dev/null 2>&1 &
         for _ in $(seq 200); do [ -e "$ready" ] && exit 0; sleep 0.1; done
         echo "the desktop keeper did not bring the desktop up within 20 s" >&2; exit 1 ;;
  stop) wineserver -k </dev/null >/dev/null 2>&1; wineserver -w </dev/null >/dev/null 2>&1; exit 0 ;;
  *) echo "usage: $0 start [DESKTOP_KEEPER_EXE] | stop" >&2; exit 2 ;;
esac
