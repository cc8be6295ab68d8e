#!/usr/bin/env bash
# While another process writes to a home, commands that read go on and change nothing, and a replay ends clearly.
# usage: one-home.sh TARVO_PROGRAM SOURCE_DIR
set -euo pipefail
program=$1 source=$2
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
fail() { echo "$1"; exit 1; }
trip=$source/apps/demo/demo-trip.gpx
store=$home/Documents/Marrowgate-Tarvo-db3.sqlite
state() { cksum "$store"; stat -c '%y %a' "$store"; }

"$program" replay "$trip" --mode 4 --home "$home" >/dev/null
exec 9<>"$store.lock"
flock -n 9 || fail "the lock outlives its process"
echo "$$ somebody" >&9
before=$(state)
"$program" replay "$trip" --mode 4 --home "$home" >"$home/second.txt" 2>&1 9>&- &
second=$!
for command in status history trips pois; do
  "$program" $command --home "$home" >"$home/read.txt" 2>&1 9>&- || grep -qF 'tarvo: no ' "$home/read.txt" ||
    fail "$command: $(cat "$home/read.txt")"
done
status=0
wait $second || status=$?
[ $status = 3 ] && grep -qF "somebody (process $$)" "$home/second.txt" || fail "status $status: $(cat "$home/second.txt")"
[ "$(state)" = "$before" ] || fail "the store was changed"

# The lock goes with its process, and whoever waits takes over.
"$program" replay "$trip" --mode 4 --home "$home" >"$home/third.txt" 2>&1 9>&- &
third=$!
exec 9>&-
wait $third || fail "$(cat "$home/third.txt")"
[ "$(sqlite3 "$store" 'SELECT count(*) = count(DISTINCT "index") FROM Locations')" = 1 ] || fail "numbers repeat"
echo "one process wrote at a time"
