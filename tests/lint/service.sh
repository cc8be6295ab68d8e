#!/usr/bin/env bash
# What the unit's service could do if somebody took it over: systemd's own measure. usage: service.sh FILE
set -euo pipefail
command -v systemd-analyze >/dev/null || { echo "systemd-analyze is missing"; exit 77; }
told=$(systemd-analyze security --offline=true "$1" 2>&1)
level=$(sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\) .*/\1/p' <<<"$told")
[ -n "$level" ] || { echo "$told"; exit 1; }
awk -v level="$level" 'BEGIN { exit !(level <= 1.5) }' || { echo "$told"; exit 1; }
echo "exposure $level"
