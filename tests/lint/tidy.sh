#!/usr/bin/env bash
# No file of the library or the programs has a finding of .clang-tidy. Takes minutes, so only "./test full" asks for it.
# usage: tidy.sh BUILD_DIR SOURCE_DIR; 77 where nobody asks or the tool is not installed.
set -euo pipefail
build=$1
cd "$2"
[ -n "${TARVO_FULL:-}" ] || { echo "skipped: only ./test full runs it"; exit 77; }
tool=$(command -v clang-tidy-14) || { echo "skipped: clang-tidy is not installed"; exit 77; }
# The analyzer follows a quarter of the paths that it would by itself, which takes half the time.
# clang refuses some options of g++ whatever it is told about warnings.
commands=$(mktemp -d)
trap 'rm -rf "$commands"' EXIT
sed -E 's/ -fno-ipa-(sra|cp)//g' "$build/compile_commands.json" >"$commands/compile_commands.json"
find src bindings apps -name '*.cpp' -print0 |
  xargs -0 -n 1 -P "$(nproc)" "$tool" -p "$commands" --quiet --extra-arg=-Wno-unknown-warning-option \
    --extra-arg=-Xclang --extra-arg=-analyzer-config --extra-arg=-Xclang --extra-arg=max-nodes=50000 2>/dev/null
