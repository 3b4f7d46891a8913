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
# --cleanup-registry: the older registry configuration goes, keys of others and .Default stay.
np='HKCU\Software\Verdane\Network Protocols'
clear_verdane() {
  wine reg delete 'HKCU\Software\Verdane' /f >/dev/null 2>&1 || true
  wine reg delete 'HKU\.Default\Software\Verdane' /f >/dev/null 2>&1 || true
}
has_key() { wine reg query "$1" >/dev/null 2>&1; }
clear_verdane
trap 'clear_verdane; rm -rf "$work"' EXIT
wine reg add "$np\SOCKS" /v Count /t REG_DWORD /d 1 /f >/dev/null
wine reg add "$np\SOCKS\Map 001" /v 'Proxy Address' /d proxy.example /f >/dev/null
wine reg add "$np\SOCKS\Default Map" /v 'Proxy Address' /d proxy.example /f >/dev/null
wine reg add "$np\HTTP\Default Map" /v 'Proxy Port' /d 8080 /f >/dev/null
wine reg add "$np\FTP" /v Kept /d yes /f >/dev/null
wine reg add 'HKU\.Default\Software\Verdane\Network Protocols\SOCKS\Default Map' /v 'Proxy Address' /d everyone /f >/dev/null
log=$(timeout 60 wine "$exe" -v --cleanup-registry 2>&1 >/dev/null)
expected=$'DXSOCKS: Begin func CleanupRegistry\nDXSOCKS:  result = 0\nDXSOCKS: End func CleanupRegistry'
[ "$(printf '%s' "$log" | tr -d '\r')" = "$expected" ] || { echo "dxconnect --cleanup-registry logged: $log"; exit 1; }
for key in "$np\SOCKS" "$np\HTTP"; do
  if has_key "$key"; then echo "dxconnect --cleanup-registry left $key"; exit 1; fi
done
has_key "$np\FTP" || { echo "dxconnect --cleanup-registry deleted another product's key"; exit 1; }
has_key 'HKU\.Default\Software\Verdane\Network Protocols\SOCKS\Default Map' ||
  { echo "dxconnect --cleanup-registry touched HKEY_USERS\.Default"; exit 1; }
wine reg delete "$np\FTP" /f >/dev/null
timeout 60 wine "$exe" --cleanup-registry >/dev/null 2>&1
if has_key 'HKCU\Software\Verdane'; then echo "an empty Software\Verdane stayed"; exit 1; fi

echo "dxconnect relayed ${#payload} bytes in nine modes, reported a failed lookup and a 407, printed an XML registry and cleaned the registry up"
