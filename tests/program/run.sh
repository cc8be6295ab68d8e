#!/usr/bin/env bash
# `tarvo run` with a receiver that is recorded and one that is live, beside a sandbox; what a person and a service
# manager do to it meanwhile. usage: run.sh TARVO_PROGRAM SOURCE_DIR
set -euo pipefail
program=$1
work=$(mktemp -d)
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; wait; rm -rf "$work"' EXIT
fail() { echo "$1"; cat "$work"/*.log; exit 1; }
wait_for() { # what, command...
  local what=$1; shift
  for ((i = 0; i < 600; ++i)); do "$@" >/dev/null 2>&1 && return; sleep 0.1; done
  fail "never came: $what"
}
home=$work/home
unit() { "$program" run --config "$work/tarvo.toml" "$@"; }
asked() { "$program" "$1" --home "$home" "${@:2}"; }
count() { "$program" status --home "$home" --json | sed -n "s/.*\"$1\":\([0-9]*\).*/\1/p"; }

"$program" sandbox --port 0 --data "$work/sandbox" >"$work/sandbox.log" 2>&1 &
pids+=($!)
wait_for "the sandbox" grep -q ^page "$work/sandbox.log"
backend=$(sed -n 's/^backend *//p' "$work/sandbox.log")
trip() { "$program" simulate --from 48.1,11.5 --to 48.11,11.52 --profile drive --seed 3 "$@"; }
trip --output "$work/trip.gpx"
# A new device sends its first batch after three minutes, which a replay's clock takes at once.
"$program" replay "$work/trip.gpx" --home "$home" --backend "$backend" --client-id demo --api-key demo-key \
  --api-secret demo-secret >"$work/replay.log" 2>&1 || fail "the replay"
before=$(count stored)
echo demo-secret >"$work/secret"
cat >"$work/tarvo.toml" <<END
backend = "$backend"
client-id = "demo"
api-key = "demo-key"
api-secret-file = "$work/secret"
home = "$home"
nmea = "$work/receiver"
END

# A recording: all of it is delivered, and the unit ends with it.
trip --format nmea --start 2025-05-14T07:30:00Z --output "$work/trip.nmea"
unit --nmea "$work/trip.nmea" --ca-file "$work/none" >"$work/recorded.log" 2>&1 || fail "a recording: status $?"
grep -qF "$work/none: No such file" "$work/recorded.log" || fail "the file that is missing is not told"
grep -qF 'can be read by everybody' "$work/recorded.log" || fail "the secret's mode is not told"
stored=$(count stored)
[ "$stored" -gt $((before + 50)) ] && [ "$(count acknowledged)" = "$stored" ] || fail "$before, then $stored stored"

# A live receiver.
chmod 600 "$work/secret"
mkfifo "$work/receiver"
"$program" run --config "$work/tarvo.toml" >"$work/live.log" 2>&1 &
live=$!
pids+=($live)
exec 8<>"$work/receiver"
trip --format nmea --start 2026-05-14T07:30:00Z | tail -n 600 >&8
stored_more() { [ "$(count stored)" -gt $((stored + $1)) ]; }
wait_for "positions of the live receiver" stored_more 20
asked flush --timeout 60 || fail "flush: status $?"
[ "$(count unsent)$(count awaiting)" = 00 ] || fail "flush has left something"
watch=$("$program" status --watch --json --home "$home" | head -n 1 || true)
[[ $watch == *'"condition":"receiving"'* && $watch == *'"unsent":0'* ]] || fail "watch: $watch"

status=0
unit >"$work/second.log" 2>&1 || status=$?
[ $status = 3 ] && grep -qF "(process $live)" "$work/second.log" || fail "a second unit: status $status"

awk '{ print 3, $1 }' /proc/uptime >"$work/starts"
RUNTIME_DIRECTORY=$work "$program" run --config "$work/tarvo.toml" >"$work/pause.log" 2>&1 &
pids+=($!)
wait_for "the pause after failed starts" grep -q 'waiting 35 s' "$work/pause.log"
kill -TERM $!
wait $! && [ ! -e "$work/starts" ] || fail "the end of a pause: status $?"
echo wrong >"$work/wrong"
"$program" run --config "$work/tarvo.toml" --home "$work/other" --nmea "$work/none" --api-secret-file "$work/wrong" --flush-timeout 0 \
  2>"$work/other.log" & other=$!
pids+=($other)
is_refused() { [[ $("$program" status --watch --home "$work/other" 2>&1 | head -n 1 || true) == *'not registered at the backend' ]]; }
wait_for "word of a secret that is wrong" is_refused
for ((i = 0; i < 9; ++i)); do timeout 0.1 "$program" flush --home "$work/other" --timeout 99 2>>"$work/flushes" || true; done
kill -TERM $other
wait $other || fail "the end of a unit with nothing to tell: status $?"

echo '{"messageFrom": "tarvo"}' >"$work/push.json"
stored=$(count stored)
asked push "$work/push.json" || fail "push: status $?"
wait_for "the position of the push" stored_more 0
echo '{"messageFrom": "somebody"}' | { asked push - 2>/dev/null && fail "a push for somebody else"; [ $? = 1 ]; }
asked set state background && asked set battery charging:80 && asked set log-level 5 || fail "set: status $?"
! asked set state asleep 2>"$work/refused.log" && grep -q 'state has to be' "$work/refused.log" || fail "asleep"

printf 'mode = 4\nlog-level = 10\n' >>"$work/tarvo.toml"
kill -HUP $live
wait_for "the options" grep -q 'read again; a new start is needed for mode' "$work/live.log"
echo 'state = 5' >>"$work/tarvo.toml"
kill -HUP $live
wait_for "the error" grep -q 'tarvo.toml:9: state: has to be a text; the options stay' "$work/live.log"

kill -TERM $live
wait $live || fail "the end: status $?"
[ "$(count unsent)$(count awaiting)" = 00 ] || fail "the end has left something"
! asked flush 2>"$work/none.log" && grep -q "no unit runs on $home" "$work/none.log" || fail "it is gone"
echo "a unit ran: $stored positions"
