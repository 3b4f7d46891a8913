#!/bin/bash
# The host program end to end: a payload through danted to the echo server comes back whole, and a
# refused connect exits 1 naming the WinSock error.
set -euo pipefail
exe=$1 bench_env=$2
# shellcheck disable=SC1090
source "$bench_env"
payload=$(head -c 3000 /dev/urandom | base64 -w0)
got=$(printf '%s' "$payload" | timeout 60 wine "$exe" -w 1 -t socks4 -x "127.0.0.1:$DANTE_PORT" 127.0.0.1 "$ECHO_PORT" 2>/dev/null)
[ "$got" = "$payload" ] || { echo "payload came back different (${#got} of ${#payload} bytes)"; exit 1; }

set +e
message=$(timeout 60 wine "$exe" -t socks4 -x "127.0.0.1:$DANTE_PORT" no-such-host.invalid 80 </dev/null 2>&1 >/dev/null)
status=$?
set -e
[ "$status" = 1 ] || { echo "unresolvable destination: exit status $status, wanted 1"; exit 1; }
case "$message" in
  *"WinSock error 11001"*) ;;
  *) echo "unexpected message: $message"; exit 1 ;;
esac
echo "dxconnect relayed ${#payload} bytes through danted and reported a failed lookup"
