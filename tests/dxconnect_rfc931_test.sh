#!/bin/bash
# dxconnect through the danted that checks its clients by ident: with dxidentd answering on 113 the
# user "nobody" passes (SOCKS 4 and 5, blocking and non-blocking) and "alice" is refused. Port 113
# needs root; elsewhere the test is skipped (exit 77) and says why.
set -euo pipefail
dxconnect=$1 dxidentd=$2 bench_env=$3
# shellcheck disable=SC1090
source "$bench_env"

if [ "$(id -u)" != 0 ]; then
  echo "skipped: dxidentd must answer on port 113, which needs root"
  exit 77
fi
log=$(mktemp)
setsid wine "$dxidentd" -p 113 >"$log" 2>&1 </dev/null &
identd=$!
stop_identd() {
  kill -TERM -- -"$identd" 2>/dev/null || kill -TERM "$identd" 2>/dev/null || true
  wait "$identd" 2>/dev/null || true
  rm -f "$log"
}
trap stop_identd EXIT
for _ in $(seq 100); do
  grep -q "answering on port 113" "$log" && break
  if ! kill -0 "$identd" 2>/dev/null; then
    echo "skipped: dxidentd could not answer on port 113: $(cat "$log")"
    exit 77
  fi
  sleep 0.1
done
grep -q "answering on port 113" "$log" || { echo "dxidentd did not start within 10 s: $(cat "$log")"; exit 1; }

payload=$(head -c 2000 /dev/urandom | base64 -w0)
relay() {
  local got
  got=$(printf '%s' "$payload" | timeout 60 wine "$dxconnect" -w 1 "$@" 127.0.0.1 "$ECHO_PORT" 2>/dev/null)
  [ "$got" = "$payload" ] || { echo "dxconnect $*: payload came back different (${#got} of ${#payload} bytes)"; exit 1; }
}
relay -t socks4 -u nobody -x "127.0.0.1:$DANTE_RFC931_PORT"
relay -t socks5 -u nobody -x "127.0.0.1:$DANTE_RFC931_PORT"
relay -n -t socks4 -u nobody -x "127.0.0.1:$DANTE_RFC931_PORT"

set +e
message=$(timeout 60 wine "$dxconnect" -t socks4 -u alice -x "127.0.0.1:$DANTE_RFC931_PORT" 127.0.0.1 "$ECHO_PORT" \
  </dev/null 2>&1 >/dev/null)
status=$?
set -e
[ "$status" = 1 ] || { echo "user alice: exit status $status, wanted 1 ($message)"; exit 1; }
echo "through the ident-checking danted: nobody relayed ${#payload} bytes in three modes, alice was refused ($message)"
