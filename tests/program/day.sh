#!/usr/bin/env bash
# A scripted day: application, charger and push messages, a relaunch, what the backend derives, and the log of the day
# before. usage: day.sh TARVO_PROGRAM SOURCE_DIR
set -euo pipefail
program=$1 source=$2
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
fail() { echo "$1"; grep -v armed "$home/day.txt" | tail -n 40; exit 1; }
sed 's/^ *//' >"$home/day.jsonl" <<'SCRIPT'
  # the first fix comes after what happens at 0
  {"at": 0, "event": "permission", "status": "always"}
  {"at": 30, "event": "launch"}
  {"at": 30, "event": "push", "payload": {"messageFrom": "tarvo"}}
  {"at": 300, "event": "background"}
  {"at": 600, "event": "plug", "level": 0.4}
  {"at": 900, "event": "unplug"}
  {"at": 1200, "event": "foreground"}
  {"at": 90000, "event": "relaunch"}
  {"at": 90000, "event": "launch"}
  {"at": 90000, "event": "wake"}
  {"at": 90000, "event": "push", "payload": {"messageFrom": "tarvo", "name": "routematch"}}
SCRIPT
"$program" replay "$source/apps/demo/demo-trip.gpx" --sandbox --sandbox-data "$source/apps/demo/backend.json" \
  --script "$home/day.jsonl" --mode 12 --home "$home" --verbose --json >"$home/day.json" 2>"$home/day.txt" ||
  fail "the replay failed"
store=$home/Documents/Marrowgate-Tarvo-db3.sqlite
events=$(sqlite3 "$store" "SELECT group_concat(serviceAction, ' ') FROM (SELECT * FROM Locations
  WHERE localisationMethod = 'event' ORDER BY \"index\")")
[ "$events" = "app_started app_paused power_plug power_unplug app_resumed srv_starting app_started" ] ||
  fail "other events: $events"
for text in 'prediction 7: ' 'past trip 43: ' '  armed CLCircularRegion (' '  left CLCircularRegion (' 'background transfers have ended'; do
  grep -qF -- "$text" "$home/day.txt" || fail "not shown: $text"
done
[ "$(sqlite3 "$home/sandbox.sqlite" 'SELECT count(*) FROM logs')" = 1 ] || fail "the first day's log was not uploaded"
[ "$("$program" trips --home "$home" | cut -d' ' -f1 | paste -sd,)" = 41,42,43 ] || fail "other trips"
"$program" trips --home "$home" --json | grep -q '"route":{' || fail "no route"
[ "$("$program" pois --home "$home" | wc -l)" = "$("$program" pois --home "$home" --json | grep -o '"id"' | wc -l)" ] ||
  fail "other places"
"$program" history --home "$home" --format trips | grep -q '"coordinates"' || fail "no history of trips"
"$program" history --home "$home" | grep -q '"type":"FeatureCollection"' || fail "no history"
echo "a day went by: $events"
