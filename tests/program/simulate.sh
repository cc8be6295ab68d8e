#!/usr/bin/env bash
# Invented trips are the same bytes wherever they are made: the shipped trip by the command that it names, and a person's
# month. usage: simulate.sh TARVO_PROGRAM SOURCE_DIR
set -euo pipefail
program=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$1"; exit 1; }

demo=$source/apps/demo/demo-trip.gpx
read -ra options <<<"$(sed -n 's/.*Made by: tarvo \(simulate .*\)<\/desc>/\1/p' "$demo")"
"$program" "${options[@]}" | cmp - "$demo" || fail "the shipped trip is another than that of: ${options[*]}"
month=(simulate --from 48.1,11.5 --to 48.16,11.58 --profile week --days 31 --seed 1)
"$program" "${month[@]}" --truth "$work/truth.json" --output "$work/month.gpx"
got=$(cat "$work/month.gpx" "$work/truth.json" | cksum)
[ "$got" = "3294637740 12941063" ] || fail "another month: $got"
got=$("$program" simulate --from=-33.8,-70.6 --to=-33.79,-70.61 --profile walk --seed 4 --format nmea | cksum)
[ "$got" = "4073173761 252008" ] || fail "other sentences: $got"
for place in home work lunch shop gym friend lake; do
  grep -q "\"to\": \"$place\"" "$work/truth.json" || fail "nobody went to: $place"
done

# refused STATUS TEXT FROM PROFILE SEED MORE...
refused() {
  local status=0
  "$program" simulate --from "$3" --to 48.16,11.58 --profile "$4" --seed "$5" "${@:6}" >/dev/null 2>"$work/refused.txt" ||
    status=$?
  [ $status = "$1" ] && grep -qF -- "$2" "$work/refused.txt" || fail "status $status for ${*:3}: $(cat "$work/refused.txt")"
}
refused 2 'a latitude, a comma and a longitude: 48.1' 48.1 walk 1
refused 2 'latitudes lie within 80 degrees' 90,0 walk 1
refused 2 '500 m to 500 km' 48.16,11.581 walk 1
refused 2 'fly not in' 48.1,11.5 fly 1
refused 2 '--seed' 48.1,11.5 walk -1
refused 2 'kml not in' 48.1,11.5 walk 1 --format kml
refused 2 '--days: 1 to 31' 48.1,11.5 week 1 --days 32
refused 2 '--days belongs to' 48.1,11.5 walk 1 --days 2
refused 2 'no time: yesterday' 48.1,11.5 walk 1 --start yesterday
refused 3 'truth.json: cannot be written' 48.1,11.5 walk 1 --truth "$work/none/truth.json"
refused 3 '/dev/full: cannot be written' 48.1,11.5 walk 1 --output /dev/full
echo "the same bytes: ${options[*]}"
