#!/usr/bin/env bash
# The manual is built without a warning, from two places with the same bytes; its links lead somewhere, it loads nothing
# from a network, and it has every page and every public name. usage: run.sh BUILD_DIR SOURCE_DIR; 77 without its tools.
set -euo pipefail
build=$1 source=$2
command -v doxygen >/dev/null && command -v mkdocs >/dev/null && [ -d /usr/share/mkdocs/themes/material ] ||
  { echo "skipped: needs doxygen, mkdocs and mkdocs-material"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() { echo "$*"; failed=1; }
make() { "$1/cmake/manual/build.sh" "$1" "$build" "$2" >"$work/log" 2>&1; } # SOURCE SITE
check() { python3 -B "$source/tests/manual/check.py" "$2" "$1"; }

make "$source" "$work/site" || { cat "$work/log"; exit 1; }
check "$source" "$work/site" || fail "the manual has faults"
python3 -B "$source/tests/manual/look.py" "$work/site" || [ $? = 77 ] || fail "a browser meets faults"

edited=$work/another/place
mkdir -p "$edited"
tar -c -C "$source" --exclude=./build --exclude=./.git --exclude='./obj-*' . | tar -x -C "$edited"
make "$edited" "$work/again" || fail "not from another place"
diff -qr "$work/site" "$work/again" || fail "other bytes from another place"

# What each gate is for, it sees. Rows: who has to see it, an edit of the sources, the words that tell of it.
for who in build check; do
  cp -r "$edited" "$work/$who"
  rows=$(grep "^$who|" <<'ROWS'
build|docs/hosting.md|s/](threading.md)/](threads.md)/|threads.md
build|mkdocs.yml|s/: daemon.md/: demon.md/|demon.md
build|include/tarvo/Tarvo.h|/^  \/\/\/ The engine\.$/d|Member locationManager
build|bindings/c/include/tarvo-c/history.h|s,/\*\*< the lowest latitude \*/,,|Member south
build|bindings/objc/include/tarvo-objc/TarvoHost.h|s,/\*\*< Only forwards.*\*/,,|moveClock
build|bindings/python/tarvo/_sdk.py|/"""Readable while run_pending/d|Sdk.fileno
check|docs/c.md|s/hosting.md#what-stops-the-process/hosting.md#what-stops-it/|hosting.html#what-stops-it, and the page has no such place
check|docs/sandbox.md|$a <img src="https://host.invalid/x.png">|loads https://host.invalid/x.png
check|docs/delivery.md|$a <style>@import "//host.invalid/x.css";</style>|loads //host.invalid/x.css
check|docs/daemon.md|$a <a href="nowhere.pdf">x</a>|leads to nowhere.pdf, which is not there
check|mkdocs.yml|/: formats.md/d|docs/formats.md is not in the navigation
check|include/tarvo/FlushResult.h|1,2d|FlushResult.h has no page
check|bindings/c/include/tarvo-c/tarvo.h|s,/\*\*< done \*/,,|TARVO_OK is not documented
ROWS
  )
  while IFS='|' read -r _ file edit _; do
    sed -i "$edit" "$work/$who/$file"
    cmp -s "$work/$who/$file" "$edited/$file" && fail "nothing is edited: $edit"
  done <<<"$rows"
  if [ $who = build ]; then
    make "$work/build" "$work/again" && fail "the build sees nothing"
  else
    make "$work/check" "$work/again" || { cat "$work/log"; fail "not built"; }
    check "$work/check" "$work/again" >"$work/log" && fail "the check sees nothing"
  fi
  while IFS='|' read -r _ _ _ words; do
    grep -qF -- "$words" "$work/log" || { cat "$work/log"; fail "not seen: $words"; }
  done <<<"$rows"
done
exit $failed
