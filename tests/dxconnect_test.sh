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

# Without -x: the proxy the settings file picks, for each family; -d only asks.
appdata=$(winepath -u "$(wine cmd /c echo %APPDATA% 2>/dev/null | tr -d '\r')")
mkdir -p "$appdata/Zelmont/Verdane"
settings="$appdata/Zelmont/Verdane/Settings.xml"
map() {  # proxy port user version basic use
  printf '<Map id="Default"><BasicAuthentication value="%s"/><ProtocolVersion value="%s"/><ProxyAddress value="%s"/><ProxyPort value="%s"/><ProxyUser value="%s"/><UseProxy value="%s"/></Map>' \
    "$5" "$4" "$1" "$2" "$3" "$6"
}
write_settings() {  # the SOCKS map, then the HTTP map
  printf '<?xml version="1.0" encoding="UTF-8"?>\r\n<!DOCTYPE Settings>\r\n<Settings version="25..2..0"><Proxies><Proxy type="SOCKS"><Maps count="0">%s</Maps></Proxy><Proxy type="HTTP"><Maps count="0">%s</Maps></Proxy></Proxies></Settings>' \
    "$1" "$2" >"$settings"
}
write_settings "$(map 127.0.0.1 "$DANTE_PORT" "" 5 0 1)" "$(map 127.0.0.1 "$TINYPROXY_PORT" "" 4 0 1)"
relay -t socks5
relay -n -t socks4
relay -t http
asked=$(timeout 60 wine "$exe" -d -t socks5 127.0.0.1 "$ECHO_PORT" 2>&1 | tr -d '\r')
[ "$asked" = $'proxy 127.0.0.1:'"$DANTE_PORT"$'\nuser \nversion 5' ] || { echo "dxconnect -d printed: $asked"; exit 1; }
asked=$(timeout 60 wine "$exe" -d -t http 127.0.0.1 "$ECHO_PORT" 2>&1 | tr -d '\r')
[ "$asked" = $'proxy 127.0.0.1:'"$TINYPROXY_PORT"$'\nuser \nbasic 0' ] || { echo "dxconnect -d -t http printed: $asked"; exit 1; }
expect_failure() {  # wanted message, then the command
  local wanted=$1 message status
  shift
  set +e
  message=$(timeout 60 "$@" </dev/null 2>&1 >/dev/null)
  status=$?
  set -e
  [ "$status" = 1 ] || { echo "$*: exit status $status, wanted 1"; exit 1; }
  case "$message" in *"$wanted"*) ;; *) echo "$*: unexpected message: $message"; exit 1 ;; esac
}
# A map without a proxy: the connect fails, never direct.
write_settings "$(map "" "" "" 4 0 0)" "$(map "" "" "" 4 0 0)"
expect_failure "no proxy applies to 127.0.0.1:$ECHO_PORT" wine "$exe" -t socks4 127.0.0.1 "$ECHO_PORT"
expect_failure "no proxy applies to 127.0.0.1:$ECHO_PORT" wine "$exe" -d -t http 127.0.0.1 "$ECHO_PORT"
rm -f "$settings"
# Nothing configured, and the first-use prompt declined: a copy in a folder without a UI library, so
# that no prompt waits for an answer.
alone=$(mktemp -d)
cp "$exe" "$(dirname "$exe")/DXSOCKS.DLL" "$alone/"
expect_failure "no proxy is configured" wine "$alone/$(basename "$exe")" -t socks5 127.0.0.1 "$ECHO_PORT"
expect_failure "no proxy is configured" wine "$alone/$(basename "$exe")" -d -t http 127.0.0.1 "$ECHO_PORT"
rm -rf "$alone"

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

# --show-config: an older installation's registry configuration as the settings file's XML, HTTP first,
# with no file written; nothing to show without Software\Verdane.
settings_file() { wine cmd /c 'if exist "%APPDATA%\Zelmont\Verdane\Settings.xml" echo present' 2>/dev/null | tr -d '\r'; }
wine cmd /c 'del "%APPDATA%\Zelmont\Verdane\Settings.xml"' >/dev/null 2>&1 || true
clear_verdane
wine reg add "$np\SOCKS" /v Count /t REG_DWORD /d 1 /f >/dev/null
wine reg add "$np\SOCKS\Map 001" /v 'Destination Address' /d 10.1.2.3 /f >/dev/null
wine reg add "$np\SOCKS\Map 001" /v 'Proxy Address' /d 10.9.9.9 /f >/dev/null
wine reg add "$np\SOCKS\Map 001" /v 'Use Proxy' /t REG_DWORD /d 1 /f >/dev/null
wine reg add "$np\SOCKS\Map 001" /v 'Protocol Version' /t REG_DWORD /d 5 /f >/dev/null
wine reg add "$np\HTTP\Default Map" /v 'Proxy Address' /d 10.8.8.8 /f >/dev/null
wine reg add "$np\HTTP\Default Map" /v 'Proxy Port' /d 8080 /f >/dev/null
wine reg add "$np\HTTP\Default Map" /v 'Basic Authentication' /t REG_DWORD /d 1 /f >/dev/null
shown=$(timeout 60 wine "$exe" --show-config 2>&1 | tr -d '\r\n\t')
for part in '<Settings version="25..2..0"><Proxies><Proxy type="HTTP"><Maps count="0"><Map id="Default"><BasicAuthentication value="1"/>' \
  '<ProxyAddress value="10.8.8.8"/><ProxyPort value="8080"/>' \
  '</Proxy><Proxy type="SOCKS"><Maps count="1"><Map id="1"><DestinationAddress value="10.1.2.3"/>' \
  '<ProtocolVersion value="5"/><ProxyAddress value="10.9.9.9"/><ProxyPort value="1080"/>'; do
  case "$shown" in *"$part"*) ;; *) echo "dxconnect --show-config lacks $part in: $shown"; exit 1 ;; esac
done
[ -z "$(settings_file)" ] || { echo "dxconnect --show-config wrote the settings file"; exit 1; }
has_key "$np\SOCKS" || { echo "dxconnect --show-config changed the registry"; exit 1; }
log=$(timeout 60 wine "$exe" -v --show-config 2>&1 >/dev/null | tr -d '\r')
expected=$'DXSOCKS: Begin func GetRegConfig\nDXSOCKS: Reading HTTP proxy configuration from registry.\nDXSOCKS: Reading SOCKS proxy configuration from registry.'
case "$log" in "$expected"*'End func GetRegConfig') ;; *) echo "dxconnect -v --show-config logged: $log"; exit 1 ;; esac
clear_verdane
if timeout 60 wine "$exe" --show-config >/dev/null 2>&1; then echo "dxconnect --show-config showed a configuration without Software\Verdane"; exit 1; fi

echo "dxconnect relayed ${#payload} bytes in nine modes and three from the settings file, asked it, reported a failed lookup and a 407, printed an XML registry, cleaned the registry up and showed its configuration"
