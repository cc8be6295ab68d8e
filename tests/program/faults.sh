#!/usr/bin/env bash
# Every kind of fault of a sandbox against a whole trip, in both modes of delivery: the backend lacks no position, or just
# those that docs/delivery.md says. usage: faults.sh TARVO_PROGRAM SOURCE_DIR
set -euo pipefail
program=$1 source=$2
dir=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait || true; rm -rf "$dir"' EXIT
trip=$source/apps/demo/demo-trip.gpx

# Kind, parameters of a rule for the first batches and of one for the whole trip; how many positions the backend lacks and
# how many status names as acknowledged without an answer, by default (some or none; "same": just those that are lacking).
# With confirmation there is none of either.
cases='status       "times":4               "every":4                  none none
       redirect     "times":2               "every":4                  some none
       drop-before  "times":5               "every":4                  some same
       hang         "seconds":2             "every":4,"seconds":2      none none
       delay        "times":4,"delay":0.2   "every":4,"delay":0.02     none none
       drop-after   "times":5               "every":4                  none some
       half         "times":4               "every":4                  none some
       garbage      "times":4               "every":4                  none none
       types        "times":1               "every":4,"times":1        none none
       drip         "times":4,"delay":0.2   "every":4,"delay":0.02     none none
       skew         "every":2,"delay":-1e5  "every":4                  none none'

# What the backend lacks of the numbers up to the last, what is named, and how many stand in one of the lists alone.
compared="WITH RECURSIVE
  told AS (SELECT readfile('status') AS status),
  every(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM every, told WHERE n < status ->> 'last_index'),
  lacking AS (SELECT n FROM every WHERE n NOT IN (SELECT id FROM positions)),
  named AS (SELECT n FROM every, told, json_each(status, '\$.acknowledged_without_answer')
            WHERE n BETWEEN value ->> 'first' AND value ->> 'last')
  SELECT (SELECT count(*) FROM lacking) || ' ' || (SELECT count(*) FROM named) || ' ' ||
    (SELECT count(*) FROM (SELECT * FROM lacking EXCEPT SELECT * FROM named)) || ' ' ||
    (SELECT count(*) FROM (SELECT * FROM named EXCEPT SELECT * FROM lacking)) || ' ' ||
    (SELECT status ->> 'stored' = status ->> 'acknowledged' AND status ->> 'stored' > 400 FROM told) || ' ' ||
    (SELECT count(*) FROM requests WHERE fault = '\$kind')"

run() { # KIND RULE RULE LACKING NAMED [--confirmed]
  local kind=$1 lacking=$4 named=$5 home=$dir/$1$6 url tries=0
  mkdir "$home"; cd "$home"
  printf '[{"endpoint":"positions","kind":"%s",%s},{"endpoint":"positions","kind":"%s",%s}]' "$1" "$2" "$1" "$3" >rules
  : >out
  "$program" sandbox --port 0 --data data --faults rules >out 2>err &
  pid=$!
  until grep -q '^page ' out; do kill -0 $pid 2>/dev/null || { cat err; return 1; }; done
  url=$(awk '/^backend/ { print $2 }' out)
  # A process that a wrong type stops is followed by another.
  until "$program" replay "$trip" --backend "$url" --api-key demo-key --api-secret demo-secret --home home $6 >told 2>&1; do
    [ $((tries += 1)) -lt 3 ] && grep -q 'Fatal error' told || { echo "$kind $6: $(tail -n 5 told)"; return 1; }
  done
  kill $pid; wait $pid || true
  "$program" status --home home --json >status
  read -r lacks names unnamed kept all met < <(sqlite3 data/sandbox.sqlite "${compared/\$kind/$kind}")
  echo "$kind $6: $met faults; the backend lacks $lacks, $names are named"
  [ "$all" = 1 ] && [ "$met" -gt 0 ] || return 1
  [ -z "$6" ] || { [ "$lacks $names" = "0 0" ]; return; }
  case $lacking in none) [ "$lacks" = 0 ] ;; some) [ "$lacks" -gt 0 ] ;; esac || return 1
  case $named in none) [ "$names" = 0 ] ;; some) [ "$names" -gt 0 ] ;; same) [ "$unnamed $kept" = "0 0" ] ;; esac
}

for mode in "" --confirmed; do (
  trap 'kill $pid 2>/dev/null || true' EXIT
  while read -r kind first later lacking named; do
    run "$kind" "$first" "$later" "$lacking" "$named" "$mode" || { echo "not as it should be: $kind $mode"; exit 1; }
  done <<<"$cases"
) &
  modes+=($!)
done
for mode in "${modes[@]}"; do wait "$mode" || exit 1; done
