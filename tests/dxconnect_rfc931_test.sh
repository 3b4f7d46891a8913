#!/bin/bash
# dxidentd refuses a bad -w; then dxconnect through the danted that checks its clients by ident:
# with dxidentd answering on 113 the user "nobody" passes (SOCKS 4 and 5, blocking and non-blocking)
# and "alice" is refused. Port 113 needs root; elsewhere that part is skipped (exit 77) and says why.
set -euo pipefail
dxconnect=$1 dxidentd=$2 bench_env=$3
# shellcheck disable=SC1090
source "$bench_env"

# The wait for a key not yet entered is an option of its own, read as strictly as the others.
for bad in x -1 60001; do
  set +e
  said=$(wine "$dxidentd" -w "$bad" 2>&1)
  status=$?
  set -e
  [ "$status" = 2 ] && [[ $said == *"-w: '$bad' is not a number of milliseconds from 0 to 60000"* ]] ||
    { echo "dxidentd -w $bad: exit status $status ($said), wanted 2 and the reason"; exit 1; }
done

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
errors=$(mktemp)
trap 'stop_identd; rm -f "$errors"' EXIT
# Under load danted now and then drops a connection it has accepted, with no word in its log: each
# client gets a second attempt, and says so.
relay_once() {
  local got status=0
  got=$(printf '%s' "$payload" | timeout 60 wine "$dxconnect" -w 1 "$@" 127.0.0.1 "$ECHO_PORT" 2>"$errors") || status=$?
  [ "$status" = 0 ] && [ "$got" = "$payload" ] && return 0
  failure="exit status $status, ${#got} of ${#payload} bytes came back: $(cat "$errors")"
  return 1
}
relay() {
  relay_once "$@" && return 0
  echo "dxconnect $*: first attempt failed ($failure); once more"
  relay_once "$@" || { echo "dxconnect $*: $failure"; exit 1; }
}
relay -t socks4 -u nobody -x "127.0.0.1:$DANTE_RFC931_PORT"
relay -t socks5 -u nobody -x "127.0.0.1:$DANTE_RFC931_PORT"
relay -n -t socks4 -u nobody -x "127.0.0.1:$DANTE_RFC931_PORT"

# danted refuses alice once dxidentd has named her, and its log says so. What the client sees depends
# on how the refusal reaches it: a reset fails the connect (exit 1), while a plain close is a read of
# 0 bytes, which the library's blocking read keeps retrying without a limit; so the client gets a
# bound of its own here, and the proxy's verdict decides.
danted_log="$(dirname "$bench_env")/danted_rfc931.log"
refusals() { grep -c 'rfc931%alice@127.0.0.1' "$danted_log" || true; }
refused=0
for attempt in 1 2 3; do
  before=$(refusals)
  set +e
  message=$(timeout 20 wine "$dxconnect" -t socks4 -u alice -x "127.0.0.1:$DANTE_RFC931_PORT" 127.0.0.1 "$ECHO_PORT" \
    </dev/null 2>&1 >/dev/null)
  status=$?
  set -e
  [ "$status" = 1 ] || [ "$status" = 124 ] || { echo "user alice: exit status $status, wanted 1 or the bound ($message)"; exit 1; }
  for _ in $(seq 50); do
    [ "$(refusals)" -gt "$before" ] && break
    sleep 0.1
  done
  if [ "$(refusals)" -gt "$before" ]; then
    grep 'rfc931%alice@127.0.0.1' "$danted_log" | tail -1 | grep -q 'block' ||
      { echo "user alice: danted's last word on alice is no block"; exit 1; }
    refused=1
    break
  fi
  echo "user alice, attempt $attempt: danted dropped the connection without a verdict (client status $status); once more"
done
[ "$refused" = 1 ] || { echo "user alice: no verdict of danted in three attempts"; exit 1; }
echo "through the ident-checking danted: nobody relayed ${#payload} bytes in three modes, alice was refused (client status $status)"
