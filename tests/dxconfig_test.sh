#!/bin/bash
# dxconfig end to end, headless: it opens each editor, presses as told and prints the result; OK
# writes the family's maps into the settings file, Cancel leaves it alone; the XML variant prints
# the in-memory registry's text after OK. The settings file and the Software\Verdane keys are
# cleared before and after (settings_store).
set -euo pipefail
exe=$1
appdata=$(winepath -u "$(wine cmd /c echo %APPDATA% 2>/dev/null | tr -d '\r')")
settings="$appdata/Zelmont/Verdane/Settings.xml"
work=$(mktemp -d)
clear_store() {
  rm -f "$settings"
  wine reg delete 'HKCU\Software\Verdane' /f >/dev/null 2>&1 || true
  wine reg delete 'HKU\.Default\Software\Verdane' /f >/dev/null 2>&1 || true
}
clear_store
trap 'clear_store; rm -rf "$work"' EXIT

run() {  # wanted exit status, then the options; the output goes to $work/out
  local wanted=$1 status
  shift
  set +e
  timeout 60 wine "$exe" "$@" >"$work/out" 2>"$work/err"
  status=$?
  set -e
  tr -d '\r' <"$work/out" >"$work/out.txt"
  [ "$status" = "$wanted" ] || { echo "dxconfig $*: exit status $status, wanted $wanted"; cat "$work/err"; exit 1; }
}
first_line() { head -n 1 "$work/out.txt"; }
has_family() {  # the settings file holds the family's proxy element
  [ -f "$settings" ] && grep -q "<Proxy type=\"$1\"" "$settings"
}

# Cancel: result 0, nothing written.
run 1 -t socks -k cancel
[ "$(first_line)" = "result 0" ] || { echo "Cancel printed: $(cat "$work/out.txt")"; exit 1; }
[ ! -e "$settings" ] || { echo "Cancel wrote the settings file"; exit 1; }

# OK on a first use: the default map is stored, in the settings file of the user.
run 0 -t socks -k ok
[ "$(first_line)" = "result 1" ] || { echo "OK printed: $(cat "$work/out.txt")"; exit 1; }
has_family SOCKS || { echo "OK left no SOCKS maps in the settings file"; exit 1; }
grep -q '<Map' "$settings" || { echo "OK stored no map"; exit 1; }

# The HTTP editor in its full view, with the rectangle printed first; Cancel leaves the file as it was.
cp "$settings" "$work/before.xml"
run 1 -t http -f -r -k cancel
grep -Eq '^dialog -?[0-9]+ -?[0-9]+ [0-9]+ [0-9]+$' "$work/out.txt" || { echo "-r printed: $(cat "$work/out.txt")"; exit 1; }
[ "$(sed -n 2p "$work/out.txt")" = "result 0" ] || { echo "-r -k cancel printed: $(cat "$work/out.txt")"; exit 1; }
cmp -s "$settings" "$work/before.xml" || { echo "Cancel changed the settings file"; exit 1; }
read -r _ _ _ width height < <(head -n 1 "$work/out.txt")
[ "$width" -gt 100 ] && [ "$height" -gt 100 ] || { echo "the editor's size $width x $height"; exit 1; }

# The simple view is lower than the full one.
run 1 -t http -r -k cancel
read -r _ _ _ simpleWidth simpleHeight < <(head -n 1 "$work/out.txt")
[ "$simpleWidth" = "$width" ] && [ "$simpleHeight" -lt "$height" ] || {
  echo "simple view $simpleWidth x $simpleHeight, full view $width x $height"; exit 1; }

# -w: the press waits for the file.
( sleep 1; touch "$work/go" ) &
run 0 -t http -w "Z:$work/go" -k ok
[ "$(first_line)" = "result 1" ] || { echo "-w printed: $(cat "$work/out.txt")"; exit 1; }
has_family HTTP || { echo "the HTTP editor's OK left no HTTP maps"; exit 1; }

# The XML variant: OK prints the result and then the in-memory registry's text; Cancel only 0.
run 1 -X -t socks -k cancel
[ "$(cat "$work/out.txt")" = "result 0" ] || { echo "-X Cancel printed: $(cat "$work/out.txt")"; exit 1; }
run 0 -X -t http -k ok
[ "$(first_line)" = "result 1" ] || { echo "-X OK printed: $(cat "$work/out.txt")"; exit 1; }
[ "$(wc -l <"$work/out.txt")" -ge 2 ] && sed -n 2p "$work/out.txt" | grep -q '^<' || {
  echo "-X OK printed no XML: $(cat "$work/out.txt")"; exit 1; }

# A SOCKS editor open in another program: a second one shows the busy box instead, whose OK gives 0
# though -k asked for OK; the HTTP editor opens beside it.
rm -f "$work/go"
timeout 60 wine "$exe" -t socks -r -w "Z:$work/go" -k cancel >"$work/first" 2>&1 &
first=$!
for _ in $(seq 1 300); do
  grep -q '^dialog ' "$work/first" 2>/dev/null && break
  sleep 0.1
done
grep -q '^dialog ' "$work/first" || { echo "the first SOCKS editor did not show"; kill "$first"; exit 1; }
run 1 -t socks -k ok
[ "$(cat "$work/out.txt")" = "result 0" ] || { echo "beside an open editor printed: $(cat "$work/out.txt")"; exit 1; }
run 0 -t http -k ok
[ "$(first_line)" = "result 1" ] || { echo "the HTTP editor beside SOCKS printed: $(cat "$work/out.txt")"; exit 1; }
touch "$work/go"
wait "$first" || true
[ "$(tr -d '\r' <"$work/first" | sed -n 2p)" = "result 0" ] || { echo "the first editor printed: $(cat "$work/first")"; exit 1; }
# Closed, it no longer stands in the way.
run 0 -t socks -k ok

# Usage errors.
run 2 -t ftp
run 2 -k maybe
run 2 extra
echo "dxconfig: all cases passed"
