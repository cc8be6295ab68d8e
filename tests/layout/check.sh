#!/usr/bin/env bash
# The rules of the house that a compiler does not enforce. usage: check.sh SOURCE_DIR
set -euo pipefail
cd "$1"
failed=0
fail() { echo "$*"; failed=1; }

# Floors, lowest first; a file may include its own folder and those before it. Folders of the platform stand side by
# side on the foundation.
floors=(platform/foundation platform/device platform/location platform/persistence platform/urlsession
        settings log store records net sync engine facade)
rank() { local i; for i in "${!floors[@]}"; do [ "${floors[$i]}" = "$1" ] && { echo "$i"; return; }; done; echo -1; }
folder_of() { local path=$1; case $path in platform/*) echo "${path%/*}" | cut -d/ -f1,2 ;; *) echo "${path%%/*}" ;; esac; }
while IFS=: read -r file _ include; do
  own=$(folder_of "${file#src/}")
  other=$(folder_of "$(sed -E 's/.*"([^"]+)".*/\1/' <<<"$include")")
  [ "$(rank "$other")" -ge 0 ] || fail "$file: \"$other\" is no floor: $include"
  [ "$(rank "$other")" -le "$(rank "$own")" ] || fail "$file: includes from a higher floor: $include"
  case $own:$other in
    platform/*:platform/foundation | platform/*:"$own") ;;
    platform/*:*) fail "$file: the platform's folders do not know each other: $include" ;;
  esac
done < <(grep -rnE '^#include "' src | grep -v '/resources/' | grep -vE '#include "marrowgate')

# Headers of the public platform layer include nothing of the SDK above it.
grep -rnE '#include <tarvo/' include/tarvo/platform src/platform | grep -vE '<tarvo/(platform/|Export\.h)' &&
  fail "the platform layer includes the SDK"

# Third-party headers stay inside the one folder that wraps each, and out of every installed header.
wrapped() { # pattern, folder
  grep -rnE "#include [<\"]($1)" src include | grep -v "^$2/" && fail "a wrapped library leaves $2"
  grep -rlE "#include [<\"]($1)" "$2" --include='*.h' | while read -r header; do
    grep -rlE "\"${header#src/}\"" src include | grep -v "^$2/" && echo "$header carries a wrapped library out of $2"
  done | grep . && failed=1
  return 0
}
wrapped 'sqlite3' src/platform/persistence
wrapped 'curl/' src/platform/urlsession
wrapped 'unicode/|nlohmann/|plist/' src/platform/foundation
wrapped 'GeographicLib/|pugixml' src/platform/location

# Programs see only the public headers.
grep -rnE '#include "(platform|settings|log|store|records|net|sync|engine|facade)/' apps && fail "a program looks inside"

while read -r lines file; do
  [ "$file" = total ] || [ "$lines" -le 500 ] || fail "$file has $lines lines"
done < <(git ls-files '*.cpp' '*.h' '*.sh' '*.cmake' | xargs -r wc -l)
[ "$failed" = 0 ] && echo "the layout holds"
exit "$failed"
