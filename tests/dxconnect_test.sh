#!/bin/bash
# The host program end to end: a payload through a proxy to the echo server comes back whole, with
# SOCKS 4 and 5 and HTTP, blocking and non-blocking; a failed connect exits 1 naming the WinSock error.
set -euo pipefail
exe=$1 bench_env=$2
# shellcheck disable=SC1090
source "$bench_env"
payload=$(head -c 3000 /dev/urandom | base64 -w0)
relay() {
  local got
  got=$(printf '%s' "$payload" | timeout 60 wine "$exe" -w 1 "$@" 127.0.0.1 "$ECHO_PORT" 2>/dev/null)
  [ "$got" = "$payload" ] || { echo "dxconnect $*: payload came back different (${#got} of ${#payload} bytes)"; exit 1; }
}
relay -t socks4 -x "127.0.0.1:$DANTE_PORT"
relay -t socks5 -x "127.0.0.1:$DANTE_PORT"
relay -n -t socks4 -x "127.0.0.1:$DANTE_PORT"
relay -n -t socks5 -x "127.0.0.1:$MICROSOCKS_PORT"
relay -t socks5 -u "$PROXY_USER" -p "$PROXY_PASS" -x "127.0.0.1:$MICROSOCKS_AUTH_PORT"
relay -t http -x "127.0.0.1:$TINYPROXY_PORT"
relay -n -t http -x "127.0.0.1:$SQUID_PORT"
relay -t http -u "$PROXY_USER" -p "$PROXY_PASS" -x "127.0.0.1:$SQUID_AUTH_PORT"
relay -n -t http -u "$PROXY_USER" -p "$PROXY_PASS" -x "127.0.0.1:$TINYPROXY_AUTH_PORT"

set +e
message=$(timeout 60 wine "$exe" -t socks4 -x "127.0.0.1:$DANTE_PORT" no-such-host.invalid 80 </dev/null 2>&1 >/dev/null)
status=$?
set -e
[ "$status" = 1 ] || { echo "unresolvable destination: exit status $status, wanted 1"; exit 1; }
case "$message" in
  *"WinSock error 11001"*) ;;
  *) echo "unexpected message: $message"; exit 1 ;;
esac
set +e
message=$(timeout 60 wine "$exe" -t http -x "127.0.0.1:$SQUID_AUTH_PORT" 127.0.0.1 "$ECHO_PORT" </dev/null 2>&1 >/dev/null)
status=$?
set -e
[ "$status" = 1 ] || { echo "proxy asking for authentication: exit status $status, wanted 1"; exit 1; }
case "$message" in
  *"WinSock error 65533"*) ;;
  *) echo "unexpected message: $message"; exit 1 ;;
esac

# -r: an XML registry loaded from a file through SOCKS_SetXMLConfig, printed back by SOCKS_GetXMLConfig;
# the printed text loads again and prints the same.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/registry.xml" <<'XML'
<Registry>
  <Key name="HKEY_CURRENT_USER"><Key name="Software"><Key name="Verdane"><Key name="Network Protocols">
    <Key name="SOCKS">
      <Value name="Count" type="REG_DWORD" data="1"/>
      <Key name="1"><Value name="Proxy Address" type="REG_SZ" data="proxy.example"/></Key>
    </Key>
  </Key></Key></Key></Key>
</Registry>
XML
printed=$(timeout 60 wine "$exe" -r "Z:$work/registry.xml" 2>&1)
for part in 'name="Count"' 'type="REG_DWORD"' 'name="Proxy Address"' 'proxy.example'; do
  case "$printed" in
    *"$part"*) ;;
    *) echo "dxconnect -r: no $part in what it printed: $printed"; exit 1 ;;
  esac
done
printf '%s' "$printed" >"$work/printed.xml"
again=$(timeout 60 wine "$exe" -r "Z:$work/printed.xml" 2>&1)
[ "$again" = "$printed" ] || { echo "dxconnect -r: the printed registry did not print the same"; exit 1; }
printf '<Registry><Key name="HKEY_CURRENT_USER">' >"$work/bad.xml"
set +e
message=$(timeout 60 wine "$exe" -r "Z:$work/bad.xml" 2>&1 >/dev/null)
status=$?
set -e
[ "$status" = 1 ] || { echo "dxconnect -r with bad text: exit status $status, wanted 1"; exit 1; }
case "$message" in
  *"registry not loaded"*) ;;
  *) echo "unexpected message: $message"; exit 1 ;;
esac
echo "dxconnect relayed ${#payload} bytes in nine modes, reported a failed lookup and a 407, and printed an XML registry"
