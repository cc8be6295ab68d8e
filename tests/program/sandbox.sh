#!/usr/bin/env bash
# A sandbox of its own: two processes on the same data, replays against both at once, ended and killed and started again.
# usage: sandbox.sh TARVO_PROGRAM SOURCE_DIR
set -euo pipefail
program=$1 source=$2
dir=$(mktemp -d)
declare -A pid
trap 'kill "${pid[@]}" 2>/dev/null || true; wait || true; rm -rf "$dir"' EXIT
fail() { echo "$1"; exit 1; }
trip=$source/apps/demo/demo-trip.gpx

start() { # NAME [OPTION...]: sets page[NAME]
  : >"$dir/$1"
  "$program" sandbox --port 0 --data "$dir/data" "${@:2}" >"$dir/$1" 2>"$dir/$1.err" &
  pid[$1]=$!
  until grep -q '^page ' "$dir/$1"; do kill -0 "${pid[$1]}" 2>/dev/null || fail "$(cat "$dir/$1.err")"; done
}
url() { awk '/^page/ { print $2 }' "$dir/$1"; }
sent() { # HOME SANDBOX
  "$program" replay "$trip" --backend "$(url "$2")api" --channel "$(url "$2")" --api-key demo-key \
    --api-secret demo-secret --home "$dir/$1" --json >"$dir/$1.json" 2>"$dir/$1.txt" || fail "$1: $(cat "$dir/$1.txt")"
}
held() { sqlite3 "$dir/data/sandbox.sqlite" "$1"; }
whole='SELECT count(*) || " " || min(n) || " " || max(n) || " " || sum(wrong) FROM (SELECT count(*) AS n,
  count(*) <> max(id) + 1 OR max(received) > 1 AS wrong FROM positions GROUP BY useruuid)'

start one
start two
sent a one & first=$!
sent b two
wait $first || fail "a failed"
stored=$(grep -o '"stored":[0-9]*' "$dir/a.json" | cut -d: -f2)
[ "$(held "$whole")" = "2 $stored $stored 0" ] || fail "not each position once: $(held "$whole"), $stored"
[ "$(held "SELECT count(*) FROM hosts WHERE health LIKE '%\"stored\":$stored,%'")" = 2 ] || fail "no health was reported: $(held "SELECT * FROM hosts")"

kill -KILL "${pid[one]}"
kill -TERM "${pid[two]}"
status=0; wait "${pid[two]}" || status=$?
[ $status = 0 ] || fail "ended with $status"
wait "${pid[one]}" 2>/dev/null || true
start three
before=$(held 'SELECT uuid FROM users ORDER BY uuid')
sent b three
[ "$(held 'SELECT uuid FROM users ORDER BY uuid')" = "$before" ] || fail "a unit became another"
[ "$(held 'SELECT sum(received > 1) FROM positions')" = 0 ] || fail "positions came twice"
[ "$(held 'SELECT count(*) FROM positions')" -gt $((2 * stored)) ] || fail "nothing was added"

# Elsewhere than on loopback there is a token.
start four --bind 0.0.0.0
url four | grep -qE '\?token=[0-9a-f]{32}$' || fail "no token: $(cat "$dir/four")"
status=0; "$program" sandbox --port 0 --data "$dir/data" --tls "$trip" "$trip" >"$dir/five" 2>&1 || status=$?
[ $status = 3 ] || fail "status $status with what is no certificate"
echo "the sandbox kept every position once"
