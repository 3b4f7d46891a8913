#!/bin/bash
# Makes the README's pictures of the configuration editors: the SOCKS and the HTTP editor, each in
# its simple and its full view, as dxconfig opens them from the build, under a virtual X display.
# Installs Xvfb and ImageMagick with apt-get when they are missing.
#
# Usage: tools/screenshots.sh [BUILD_DIR [OUT_DIR]]   (defaults: build, docs/images)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
out=${2:-$root/docs/images}
mkdir -p "$out"
out=$(cd "$out" && pwd)

"$root/tools/ensure-packages.sh" xvfb xauth imagemagick
# ImageMagick's own programs, whatever else stands earlier on the PATH.
import=/usr/bin/import
convert=/usr/bin/convert

for file in dxconfig.exe DXSOCKS.DLL KVTSOCK2.DLL DXSOCKS_0409.DLL; do
  [ -f "$build/bin/$file" ] || { echo "screenshots: $build/bin/$file is missing: build first"; exit 1; }
done

# A prefix of its own with the display driver (the tests' prefix has none): Wine draws the captions
# itself, as there is no window manager.
prefix=$build/screenshot-prefix
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$prefix/.dxsocks-ready" ]; then
  rm -rf "$prefix"
  mkdir -p "$prefix"
  wineboot -i >"$prefix.boot.log" 2>&1
  wine reg add 'HKCU\Software\Wine\X11 Driver' /v Decorated /d N /f >/dev/null 2>&1
  wineserver -w
  touch "$prefix/.dxsocks-ready"
fi

work=$(mktemp -d /tmp/dxsocks-screenshots.XXXXXX)
trap 'rm -rf "$work"' EXIT
appdata=$(winepath -u "$(wine cmd /c echo %APPDATA% 2>/dev/null | tr -d '\r')")
wineserver -w
settings=$appdata/Zelmont/Verdane/Settings.xml
mkdir -p "$(dirname "$settings")"

map() {  # id, destination address and port, proxy address and port, user, version, basic, use
  printf '<Map id="%s"><BasicAuthentication value="%s"/><DestinationAddress value="%s"/><DestinationPort value="%s"/><ProtocolVersion value="%s"/><ProxyAddress value="%s"/><ProxyPort value="%s"/><ProxyUser value="%s"/><UseProxy value="%s"/></Map>' \
    "$1" "$8" "$2" "$3" "$7" "$4" "$5" "$6" "$9"
}
write_settings() {  # the count of numbered maps of each family, the SOCKS maps, the HTTP maps
  printf '<?xml version="1.0" encoding="UTF-8"?>\r\n<!DOCTYPE Settings>\r\n<Settings version="25..2..0"><Proxies><Proxy type="SOCKS"><Maps count="%s">%s</Maps></Proxy><Proxy type="HTTP"><Maps count="%s">%s</Maps></Proxy></Proxies></Settings>' \
    "$1" "$2" "$1" "$3" >"$settings"
}
# One plain map per family opens the simple view (a SOCKS one with port 1080 and user Guest);
# several open the full view with its list.
simple_socks=$(map Default "" "" socks.example.com 1080 Guest 4 0 1)
simple_http=$(map Default "" "" proxy.example.com 8080 alice 4 1 1)
full_socks="$(map 1 intranet.example.com "" "" "" "" 4 0 0)$(map 2 git.example.org 443 socks.example.com 1080 alice 5 0 1)$(map Default "" "" socks.example.com 1080 bob 4 0 1)"
full_http="$(map 1 intranet.example.com "" "" "" "" 4 0 0)$(map 2 git.example.org 443 proxy.example.com 3128 alice 4 1 1)$(map Default "" "" proxy.example.com 8080 "" 4 0 1)"

# Each shot: dxconfig prints the editor's rectangle, the screen is taken, then the file that lets
# dxconfig press Cancel appears. All in one X session.
cat >"$work/shoot.sh" <<'SHOT'
#!/bin/bash
set -euo pipefail
exe=$1 work=$2 type=$3 name=$4 import=$5
rm -f "$work/go" "$work/$name.rect"
timeout 60 wine "$exe" -t "$type" -r -w "Z:$work/go" -k cancel >"$work/$name.rect" 2>"$work/$name.err" &
for _ in $(seq 1 300); do
  grep -q '^dialog ' "$work/$name.rect" 2>/dev/null && break
  sleep 0.1
done
# The caption and the list draw after the window shows.
sleep 1
"$import" -window root "$work/$name.root.png"
touch "$work/go"
wait
SHOT
chmod +x "$work/shoot.sh"

shots=(socks:simple http:simple socks:full http:full)
: >"$work/plan"
for shot in "${shots[@]}"; do
  echo "$shot" >>"$work/plan"
done
wineserver -k 2>/dev/null || true
wineserver -w
export work build import settings simple_socks simple_http full_socks full_http
xvfb-run -a -s '-screen 0 1024x768x24' bash -c '
  set -euo pipefail
  '"$(declare -f write_settings)"'
  while IFS=: read -r type view; do
    if [ "$view" = simple ]; then write_settings 0 "$simple_socks" "$simple_http"
    else write_settings 2 "$full_socks" "$full_http"; fi
    "$work/shoot.sh" "$build/bin/dxconfig.exe" "$work" "$type" "$type-$view" "$import"
  done <"$work/plan"
  wineserver -k 2>/dev/null || true
'
rm -f "$settings"

for shot in "${shots[@]}"; do
  name=${shot/:/-}
  read -r _ left top width height <"$work/$name.rect" || { echo "screenshots: no editor for $name"; cat "$work/$name.err"; exit 1; }
  "$convert" "$work/$name.root.png" -crop "${width}x${height}+${left}+${top}" +repage -strip "PNG24:$out/$name.png"
  echo "$out/$name.png: ${width}x${height}"
done
