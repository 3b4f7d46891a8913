#!/bin/bash
# Installs the built project into a temporary prefix, builds this consumer project against the
# installed CMake package, runs its programs under Wine through danted, and checks the CPack ZIP.
# Usage: run.sh BUILD_DIR TOOLCHAIN_FILE BENCH_ENV_FILE VERSION
set -euo pipefail
build=$1 toolchain=$2 bench_env=$3 version=$4
here=$(cd "$(dirname "$0")" && pwd)

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

echo "== install into $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

# The companion libraries and the help pages install beside DXSOCKS.DLL, which finds them there.
companions="bin/KVTSOCK2.DLL bin/DXSOCKS_0409.DLL bin/pxmSetUI.dll
            bin/help/index.html bin/help/socks.html bin/help/http.html"
for entry in $companions; do
  [[ -f $prefix/$entry ]] || { echo "install lacks $entry"; exit 1; }
done

echo "== configure and build the consumer"
cmake -S "$here" -B "$tmp/consumer" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$tmp/consumer" -j"$(nproc)" >/dev/null
cp "$prefix/bin/DXSOCKS.DLL" "$tmp/consumer/"

echo "== run the consumers under Wine"
# shellcheck disable=SC1090
source "$bench_env"
for program in consumer_c consumer_cpp; do
  wine "$tmp/consumer/$program.exe" "$DANTE_PORT" "$ECHO_PORT"
done

# An MSVC-compatible linker must take DXSOCKS.lib; lld-link stands in for link.exe when present.
if command -v clang >/dev/null && command -v lld-link >/dev/null; then
  echo "== link against DXSOCKS.lib with lld-link"
  printf '__declspec(dllimport) int SOCKS_Cleanup(void);\nint start(void) { return SOCKS_Cleanup(); }\n' >"$tmp/msvc.c"
  clang --target=x86_64-pc-windows-msvc -ffreestanding -c "$tmp/msvc.c" -o "$tmp/msvc.obj"
  lld-link /nologo /nodefaultlib /entry:start /subsystem:console "$tmp/msvc.obj" \
    "$prefix/lib/DXSOCKS.lib" /out:"$tmp/msvc.exe"
  x86_64-w64-mingw32-objdump -p "$tmp/msvc.exe" | grep -q 'DLL Name: DXSOCKS.DLL'
fi

echo "== make the ZIP with CPack"
(cd "$build" && cpack -G ZIP -B "$tmp/pack" >/dev/null)
zip=$tmp/pack/dxsocks-$version-win64.zip
[[ -f $zip ]] || { echo "missing $zip"; ls -l "$tmp/pack"; exit 1; }
if command -v unzip >/dev/null; then
  listing=$(unzip -Z1 "$zip")
else
  listing=$(python3 -c 'import sys, zipfile; print("\n".join(zipfile.ZipFile(sys.argv[1]).namelist()))' "$zip")
fi
top=dxsocks-$version-win64
for entry in bin/DXSOCKS.DLL include/socks_api.h include/http_api.h include/dxsocks_types.h \
             lib/libdxsocks.dll.a lib/DXSOCKS.lib lib/cmake/dxsocks/dxsocksConfig.cmake \
             lib/cmake/dxsocks/dxsocksConfigVersion.cmake $companions; do
  grep -qxF "$top/$entry" <<<"$listing" || { echo "ZIP lacks $top/$entry"; echo "$listing"; exit 1; }
done
echo "consumer_installed: all good"
