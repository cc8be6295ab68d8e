#!/usr/bin/env bash
# Lives some invented days against the sandbox, and holds what all tests have exchanged against the contract.
# usage: run.sh TARVO_PROGRAM SOURCE_DIR EXCHANGES
set -euo pipefail
program=$1 source=$2 exchanges=$3
/usr/bin/python3 -c 'import jsonschema, yaml' 2>/dev/null || exit 77
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
"$program" simulate --from 48.1,11.5 --to 48.13,11.606 --profile week --days 3 --seed 7 --rate 0.2 >"$home/days.gpx"
TARVO_SANDBOX_EXCHANGES=$exchanges "$program" replay "$home/days.gpx" --sandbox --mode 12 --home "$home" >/dev/null
/usr/bin/python3 "$source/tests/contract/validate.py" "$source/docs/openapi.yaml" "$exchanges"
