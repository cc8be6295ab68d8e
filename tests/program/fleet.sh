#!/usr/bin/env bash
# Many units at once, at one sandbox on each storage and at two on one database: no position is lost, doubled or given
# to another. usage: fleet.sh TARVO_PROGRAM SOURCE_DIR FLEET_PROGRAM
# FLEET_UNITS speak the wire and send FLEET_BATCHES of 100 positions each; FLEET_HOMES are replays with homes of their
# own, two at a time. Exit status 77: without PostgreSQL, once the rest was tried.
set -euo pipefail
program=$1 source=$2 fleet=$3
units=${FLEET_UNITS:-8} batches=${FLEET_BATCHES:-8} homes=${FLEET_HOMES:-4}
work=$(mktemp -d)
served=()
finish() {
  kill "${served[@]}" 2>/dev/null || true
  if [ -n "${server[1]:-}" ]; then exec {server[1]}>&-; fi
  wait
  rm -rf "$work"
}
trap finish EXIT
fail() { echo "$1"; exit 1; }

# serve NAME ARGUMENT...: a sandbox; its origin is added to `origins`.
serve() {
  mkfifo "$work/$1"
  "$program" sandbox --port 0 "${@:2}" >"$work/$1" 2>"$work/$1.txt" &
  served+=($!)
  local line
  { read -r line && read -r; } <"$work/$1" || fail "no sandbox: $(cat "$work/$1.txt")"
  origins+=("$(sed -nE 's,^backend +(http://[^/]*)/.*,\1,p' <<<"$line")")
}
# replays NAME: prints UUID=COUNT of each, the positions that its home says are acknowledged.
replays() {
  local i
  for ((i = 0; i < homes; i++)); do
    echo "$work/$1-$i" "${origins[i % ${#origins[@]}]}/api"
  done | xargs -r -P 2 -L 1 bash -c '"$0" replay "$1" --mode 8 --home "$2" --backend "$3" --api-key demo-key \
    --api-secret demo-secret --deadline 120 --json 2>/dev/null || echo "a replay failed"' \
    "$program" "$source/apps/demo/demo-trip.gpx" |
    sed -E 's/.*"unsent":0,"awaiting":0,"acknowledged":([0-9]+),.*"uuid":"([^"]+)".*/\2=\1/'
}
# try NAME: all units at the sandboxes of `origins`, which then end.
try() {
  replays "$1" >"$work/$1.sent" &
  local sending=$! rate sent
  rate=$("$fleet" "$units" "$batches" "${origins[@]}") || fail "$1: $rate"
  wait $sending
  mapfile -t sent <"$work/$1.sent"
  [ ${#sent[@]} = "$homes" ] && "$fleet" 0 0 "${origins[@]}" "${sent[@]}" || fail "$1: the homes' ${sent[*]}"
  echo "$1: $rate, and $homes homes"
  kill "${served[@]}"
  wait "${served[@]}" || true
  served=() origins=()
}

origins=()
serve file --data "$work/data"
try SQLite
coproc server { exec "$source/tests/support/postgres.sh"; }
read -r folder <&"${server[0]}" || exit 77
store="postgresql://postgres@/postgres?host=$folder"
serve database --store "$store"
try PostgreSQL
"$(ls -d /usr/lib/postgresql/*/bin | tail -n 1)/createdb" -h "$folder" -U postgres two
store="postgresql://postgres@/two?host=$folder"
serve one --store "$store"
serve other --store "$store"
try two-on-PostgreSQL
