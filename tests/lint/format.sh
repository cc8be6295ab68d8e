#!/usr/bin/env bash
# Every source stands as clang-format writes it. usage: format.sh SOURCE_DIR; 77 where the tool is not installed.
set -euo pipefail
cd "$1"
tool=$(command -v clang-format-14) || { echo "skipped: clang-format is not installed"; exit 77; }
find src include bindings examples apps tests bench \( -name '*.h' -o -name '*.cpp' -o -name '*.c' -o -name '*.m' \) -print0 | xargs -0 "$tool" --dry-run -Werror
