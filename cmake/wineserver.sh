#!/bin/sh
# Keeps one persistent wineserver for the test run, so each test program starts fast.
# Output goes nowhere: CTest waits for every pipe of a test to close, and Wine's own background
# processes (services, explorer) inherit the pipes of the program that starts them, so they are
# started here, once, without any.
: "${WINEPREFIX:?}"
export WINEPREFIX WINEDEBUG=-all
case "$1" in
  # A server left over from a program run by hand would make -p fail: it goes first.
  start) wineserver -k </dev/null >/dev/null 2>&1; wineserver -w </dev/null >/dev/null 2>&1
         wineserver -p </dev/null >/dev/null 2>&1 && wine wineboot </dev/null >/dev/null 2>&1 ;;
  stop) wineserver -k </dev/null >/dev/null 2>&1; wineserver -w </dev/null >/dev/null 2>&1; exit 0 ;;
  *) echo "usage: $0 start|stop" >&2; exit 2 ;;
esac
