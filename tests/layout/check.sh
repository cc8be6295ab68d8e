#!/usr/bin/env bash
# The rules of the house that a compiler does not enforce. usage: check.sh SOURCE_DIR
set -euo pipefail
cd "$1"
failed=0
fail() { echo "$*"; failed=1; }

# Floors, lowest first; a file may include its own folder and those before it. Folders of the platform stand side by
# side on the foundation.
floors='platform/foundation platform/device platform/location platform/persistence platform/urlsession
        settings log records store net sync engine facade'
upward=$(grep -rnE '^#include "' src | grep -v '#include "marrowgate' | awk -v floors="$floors" '
  function folder(path) { return match(path, "^platform/[a-z]+") || match(path, "^[a-z]+") ? substr(path, 1, RLENGTH) : "" }
  BEGIN { n = split(floors, names); for (i = 1; i <= n; i++) rank[names[i]] = i }
  {
    split($0, parts, "\""); own = folder(substr($0, 5)); other = folder(parts[2])
    if (!(other in rank)) print "no floor: " $0
    else if (rank[other] > rank[own]) print "from a higher floor: " $0
    else if (own ~ /^platform/ && other != own && other != "platform/foundation") print "the platform folders do not know each other: " $0
  }')
[ -z "$upward" ] || fail "$upward"

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

# What a port runs first knows the headers that it writes for, and no system.
seam='foundation/(System|Descriptor)|device/DeviceSystem|persistence/StoreFiles|urlsession/(Reachability|RoutesSystem)'
grep -nE '^#include "platform/|^#include <(linux|sys/(epoll|eventfd|inotify|prctl|syscall|random|file))|/proc|/sys/' tests/conformance/*.{cpp,h} |
  grep -vE "platform/($seam)\.h\"" && fail "the conformance kit looks beyond the seam"

# Programs and bindings see only the public headers.
grep -rnE '#include "(platform|settings|log|store|records|net|sync|engine|facade)/' apps bindings examples &&
  fail "a program or a binding looks inside"

while read -r lines file; do
  [ "$file" = total ] || [ "$lines" -le 500 ] || fail "$file has $lines lines"
done < <(find . \( -name build -o -name .git \) -prune -o \( -name '*.cpp' -o -name '*.h' -o -name '*.m' -o -name '*.sh' -o -name '*.cmake' \
  -o -name '*.js' -o -name '*.css' -o -name '*.html' -o -name '*.py' \) \
  -print0 | xargs -0 wc -l)
# A test reads at one glance.
long=$(find tests -name '*.cpp' -print0 | xargs -0 awk '
  /^TEST(_F|_P)?\(/ { start = FNR }
  /^}/ && start { if (FNR - start + 1 > 40) print FILENAME ":" start " is a test of " FNR - start + 1 " lines"; start = 0 }')
[ -z "$long" ] || fail "$long"
# What a document says is held by a test has that test.
while read -r name; do
  test=${name#*/} folder=tests/${name%%/*}
  case $name in
    */\*) [ -d "$folder" ] ;;
    faults/*) [ -f "$folder/$test.cpp" ] ;;
    program/*) [ -f "$folder/$test.sh" ] ;;
    consumer/*) grep -q "$name" tests/CMakeLists.txt ;;
    *\*) test=${test%\*} && grep -qE "^TEST.*\(${test%.}" "$folder"/*.cpp ;;
    *) grep -qE "^TEST.*\(${test%.*}, ${test#*.}\)" "$folder"/*.cpp ;;
  esac || fail "a document names a test that is not there: $name"
done < <(grep -hoE '`(conformance|faults|program|consumer|device|engine|facade|foundation|location|log|net|persistence|receivers|records|sandbox|settings|store|unit|urlsession)/[A-Za-z.*-]+`' \
  docs/porting.md docs/security.md | tr -d '\`' | grep -vE '\.(h|cpp)$' | sort -u)
[ "$failed" = 0 ] && echo "the layout holds"
exit "$failed"
