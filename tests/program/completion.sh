#!/usr/bin/env bash
# What bash offers for the last word of a line. usage: completion.sh TARVO_PROGRAM SOURCE_DIR
set -u
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
"$1" document "$dir/share" || exit 1
. "$dir/share/bash-completion/completions/tarvo"
mkdir -p "$dir/here/my home" && touch "$dir/here/a trip.gpx" "$dir/here/-" && cd "$dir/here" || exit 1
function=$(complete -p tarvo | sed -nE 's/.* -F ([^ ]+) tarvo$/\1/p')
failed=0
while IFS='>' read -r line expected; do
  read -ra COMP_WORDS <<<"$line"
  [ "${COMP_WORDS[-1]}" != _ ] || COMP_WORDS[-1]=
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMPREPLY=()
  "$function" tarvo "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
  offered=$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd,)
  [ "$offered" = "${expected# }" ] || { echo "$line: offered $offered, not$expected"; failed=1; }
done <<'END'
tarvo si > simulate
tarvo doc >
tarvo replay --mo > --mode
tarvo replay --mode _ > 0,12,4,8
tarvo replay --mode = 1 > 12
tarvo replay --mode = _ > 0,12,4,8
tarvo replay a > a trip.gpx
tarvo replay --script _ > -,a trip.gpx,my home
tarvo replay --home _ > my home
tarvo replay --speed _ >
tarvo history --home x --geo > --geometry
tarvo simulate --profile w > walk,week
tarvo erase --h > --help,--home
END
[ $failed = 0 ] && echo "bash completes commands, options and values"
exit $failed
