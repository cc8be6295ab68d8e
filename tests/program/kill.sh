#!/usr/bin/env bash
# A replay that is killed half way and run again on the same home loses nothing: every index is stored once, numbering
# goes on, and the backend holds them all. usage: kill.sh TARVO_PROGRAM SOURCE_DIR
set -euo pipefail
program=$1 source=$2
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
store=$home/Documents/Marrowgate-Tarvo-db3.sqlite
trip=$source/apps/demo/demo-trip.gpx
stored() { sqlite3 "file:$store?mode=ro" 'SELECT count(*) FROM Locations' 2>/dev/null || echo 0; }

"$program" replay "$trip" --sandbox --home "$home" --speed max >"$home/first.txt" 2>&1 &
replay=$!
deadline=$((SECONDS + 60))
until [ "$(stored)" -ge 100 ]; do
  [ $SECONDS -lt $deadline ] || { echo "the replay stored too little"; cat "$home/first.txt"; exit 1; }
  kill -0 $replay 2>/dev/null || { echo "the replay was over before it could be killed"; cat "$home/first.txt"; exit 1; }
done
kill -9 $replay
wait $replay 2>/dev/null || true
before=$(stored)

"$program" replay "$trip" --sandbox --home "$home" --speed max --json >"$home/second.json"
rows() { sqlite3 "$store" "SELECT $1 FROM Locations"; }
[ "$(rows 'count(*) > '"$before")" = 1 ] || { echo "nothing was added"; exit 1; }
[ "$(rows 'count(*) = count(DISTINCT "index") AND min("index") = 0 AND max("index") + 1 = count(*)')" = 1 ] ||
  { echo "the numbering has holes or repeats"; exit 1; }
[ "$(rows 'sum(unsent) + sum(sentWithoutACK)')" = 0 ] || { echo "something was not acknowledged"; exit 1; }
[ "$(sqlite3 "$home/sandbox.sqlite" 'SELECT count(*), count(DISTINCT useruuid) FROM positions')" = "$(rows 'count(*)')|1" ] ||
  { echo "the backend does not hold every position of one user"; exit 1; }
[ "$(sqlite3 "$home/sandbox.sqlite" "ATTACH '$store' AS s; SELECT count(*) FROM positions JOIN s.Locations ON id = \"index\"
  WHERE abs(lat - latitude) + abs(lon - longitude) < 1e-6 AND service_action = serviceAction")" = "$(rows 'count(*)')" ] ||
  { echo "the backend holds other positions"; exit 1; }
"$program" history --home "$home" | grep -q '"type":"FeatureCollection"' || { echo "no history"; exit 1; }
echo "killed at $before positions, complete at $(rows 'count(*)')"
