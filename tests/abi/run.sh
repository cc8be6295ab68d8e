#!/usr/bin/env bash
# The ABI of libtarvo-c is what it was: records, enumerators and functions against bindings/c/abi/ARCHITECTURE.abi, names
# and versions of the library itself against debian/libtarvo-c0.symbols. Functions may come. A member at the end of
# a record that begins with `size` may come too, but somebody has to look at it: then, and only then, "--write".
# usage: run.sh LIBRARY SOURCE_DIR [--write]; 77 where abidiff is not installed or there is no reference for the machine.
set -euo pipefail
library=$1 source=$2
reference=$source/bindings/c/abi/$(uname -m).abi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
header=$work/whole.h  # all headers in one
cat "$source"/bindings/c/include/tarvo-c/{tarvo,history,engine}.h | grep -v '^#include <tarvo-c/' >"$header"
failed=0
fail() { echo "$1"; failed=1; }

# The library's own names, node and soname need no tool.
listed=$(sed -nE 's/^ (tarvo_[a-z_]+)@TARVO_C_([0-9.]+) .*/\1@@TARVO_C_\2/p' "$source/debian/libtarvo-c0.symbols" | sort)
exported=$(nm -D --defined-only --with-symbol-versions "$library" | awk '$2 != "A" { print $3 }' | sort)
diff <(echo "$listed") <(echo "$exported") || fail "the library does not export what its symbols file lists"
readelf -d "$library" | grep -qF '[libtarvo-c.so.0]' || fail "another soname"
declared=$(grep -oE 'tarvo_[a-z_]+\(' "$header" | tr -d '(' | sort -u)
diff <(echo "$declared") <(sed 's/@.*//' <<<"$exported") || fail "the header does not declare what the library exports"

# seen HEADER NAME: a library whose functions do nothing, but have the header's types, whatever flags the real one has.
# Each enumeration is an argument of some function, so that all are seen.
seen() {
  { echo "#include \"$1\""
    gcc -std=c99 -aux-info "$work/$2.prototypes" -fsyntax-only -x c "$1"
    sed -nE 's%^/\*.*\*/ extern (.*tarvo_.*);%\1 { __builtin_trap(); }%p' "$work/$2.prototypes"
    sed -nE 's/^typedef enum (tarvo_[a-z_]+) TARVO_C_INT \{.*/void knows_\1(\1 value) { (void)value; }/p' "$1"
  } >"$work/$2.c"
  gcc -std=gnu11 -w -g -shared -fPIC -Wl,-soname,libtarvo-c.so.0 -o "$work/$2.so" "$work/$2.c"
}
mkdir "$work/now" && cp "$header" "$work/now/tarvo.h"
seen "$work/now/tarvo.h" now
if ! command -v abidiff >/dev/null; then
  [ $failed = 0 ] && echo "skipped: abidiff is not installed" && exit 77
  exit 1
fi
if [ "${3:-}" = --write ]; then
  abidw --no-show-locs --no-comp-dir-path --no-corpus-path --no-elf-needed "$work/now.so" >"$reference"
fi
[ -f "$reference" ] || { echo "skipped: no reference for $(uname -m)"; exit 77; }
same() { abidiff --no-added-syms --no-show-locs "$reference" "$work/$1.so" >"$work/$1.txt" 2>&1; }
same now || { cat "$work/now.txt"; fail "the ABI has changed"; }

# The gate sees what it is for. Each row: whether it has to hold, and what is done to the header.
while read -r holds edit; do
  mkdir -p "$work/tried" && sed -E "$edit" "$header" >"$work/tried/tarvo.h"
  cmp -s "$header" "$work/tried/tarvo.h" && fail "nothing is edited: $edit"
  seen "$work/tried/tarvo.h" tried
  if same tried; then held=yes; else held=no; fi
  [ $held = "$holds" ] || fail "the gate says $held to $edit"
done <<'ROWS'
yes s/^TARVO_C_API const char\* tarvo_version\(void\);/&\nTARVO_C_API int tarvo_newer(int level);/
no s/^TARVO_C_API const char\* tarvo_version\(void\);//
no s/^TARVO_C_API tarvo_result tarvo_deliver\(const tarvo_fix\* fixes, size_t count\);/TARVO_C_API tarvo_result tarvo_deliver(const tarvo_fix* fixes, int count);/
no s/^  int32_t unsent;/  int32_t more, unsent;/
no /^  double (south|west);/{s/south/other/;s/west/south/;s/other/west/}
no s/^  int32_t floor;/  int64_t floor;/
no s/^  void \(\*released\)\(void\* user\);//
no s/TARVO_BAD_HANDLE = -2,/TARVO_BAD_HANDLE = -20,/
no s/TARVO_HAS_COURSE = 32,/TARVO_HAS_COURSE = 31,/
no s/^  const char\* route;.*/&\n  const char* name;/
ROWS
[ $failed = 0 ] && echo "the ABI holds: $(wc -l <<<"$exported") functions"
exit $failed
