#!/usr/bin/env bash
# The example in C: compiled as every C that is promised, replays what a receiver said against a sandbox, which has every
# position then; what it prints is what the C++ program prints. usage: tracker.sh TARVO_PROGRAM SOURCE_DIR C_LIBRARY [valgrind]
# With "valgrind" under that; 77 where it is not installed. TRACKER names one that was built from another language.
set -euo pipefail
program=$1 source=$2 library=$3 under=${4:-}
work=$(mktemp -d)
trap 'kill ${sandbox:-} 2>/dev/null || true; rm -rf "$work"' EXIT
fail() { echo "$1"; tail -n 20 "$work"/*.log; exit 1; }
run=()
if [ -n "$under" ]; then
  command -v valgrind >/dev/null || { echo "skipped: valgrind is not installed"; exit 77; }
  run=(valgrind -q --leak-check=full --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect --error-exitcode=99)
fi
if [ -n "${TRACKER:-}" ]; then cp "$TRACKER" "$work/tracker"; else
strict="-Wall -Wextra -pedantic -Werror -I$source/bindings/c/include"
example=$source/examples/c/tracker.c
for compiler in gcc clang; do
  command -v $compiler >/dev/null || continue
  for standard in c99 c11; do $compiler -std=$standard $strict -O2 -fsyntax-only "$example"; done
done
# The headers are C++ too, of every age, and stand alone.
for standard in c++98 c++20; do ${CXX:-c++} -std=$standard $strict -x c++ -fsyntax-only - <<<'#include <tarvo-c/engine.h>'; done
# shellcheck disable=SC2086
${CC:-cc} -std=c99 -g $strict ${TRACKER_FLAGS:-} "$example" "$library" -Wl,-rpath,"$(dirname "$library"):$(dirname "$library")/../../src" \
  -Wl,-rpath-link,"$(dirname "$library")/../../src" -o "$work/tracker"
fi

"$program" sandbox --port 0 --data "$work/backend" >"$work/addresses" 2>"$work/sandbox.log" &
sandbox=$!
for _ in $(seq 200); do [ "$(wc -l <"$work/addresses")" -ge 2 ] && break; sleep 0.05; done
read -r _ backend <"$work/addresses" || fail "no sandbox"

"$program" simulate --from 48.1,11.5 --to 48.12,11.53 --profile bike --seed 3 --rate 0.5 --output "$work/trip.gpx"
# One recording is CSV, one NMEA with checksums where the line tells; both have what no fix is.
tr '\n' ' ' <"$work/trip.gpx" | sed 's/<trkpt/\n<trkpt/g' |
  sed -nE 's/.*lat="([^"]*)" lon="([^"]*)".*<time>([^<]*)<.*/\3 \1 \2/p' | while read -r time latitude longitude; do
  echo "$(date -ud "$time" +%s),$latitude,$longitude,4"
done >"$work/trip.csv"
{ echo '$GPGSV,3,1,11'; echo '$GPRMC,123519,V,,,,,,,230394,,*00'; echo '$GPRMC,073000,A,1,N,1,E,1,1,140524,,*00'
  awk -F, '{ a = $2; o = $3; printf "$GPRMC,%s,A,%02d%09.6f,N,%03d%09.6f,E,9.7,,%s,,\n", strftime("%H%M%S", $1, 1),
    int(a), (a - int(a)) * 60, int(o), (o - int(o)) * 60, strftime("%d%m%y", $1, 1) }' "$work/trip.csv"
} >"$work/trip.nmea"
{ echo 'time,latitude,longitude'; cat "$work/trip.csv"; } >"$work/headed.csv"
fixes=$(wc -l <"$work/trip.csv")
[ "$fixes" -gt 100 ] || fail "only $fixes fixes"
for recording in headed.csv trip.nmea; do
  [ -z "$under" ] || [ $recording = trip.nmea ] || continue
  timeout 240 "${run[@]}" "$work/tracker" "$work/$recording.home" "$backend" "$work/$recording" \
    >"$work/$recording.geojson" 2>"$work/$recording.log" || fail "the tracker failed on $recording"
  grep -qxE "tracker: $fixes fixes fed, told of [0-9]{2,}" "$work/$recording.log" || fail "other fixes of $recording"
  [ "$(wc -l <"$work/$recording.log")" = 1 ] || fail "more was told of $recording"
  "$program" history --home "$work/$recording.home" | cmp - "$work/$recording.geojson" || fail "another history of $recording"
  "$program" status --home "$work/$recording.home" --json | grep -q '"unsent":0,"awaiting":0' || fail "not all sent of $recording"
  stored=$(sqlite3 "$work/$recording.home/Documents/Marrowgate-Tarvo-db3.sqlite" 'SELECT count(*) FROM Locations')
  grep -q coordinates "$work/$recording.geojson" && [ "$stored" -gt 20 ] || fail "only $stored positions of $recording"
  echo "$recording: $fixes fixes, $stored positions, all acknowledged, the same history"
  total=$((${total:-0} + stored))
done
kill $sandbox && wait $sandbox || true  # what it has answered is in its file by then
there=$(sqlite3 "$work/backend/sandbox.sqlite" "SELECT count(*) FROM (SELECT DISTINCT useruuid, id FROM positions)")
[ "$there" = "$total" ] || fail "the backend has $there of $total positions"
