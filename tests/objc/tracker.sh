#!/usr/bin/env bash
# The example does what that in C does. usage: tracker.sh TARVO_PROGRAM SOURCE_DIR OBJC_LIBRARY
set -euo pipefail
source=$2 library=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$source/tests/objc/flags.sh"
build=$(dirname "$library")/../..
compile "$work/tracker" gcc "$source/examples/objc/tracker.m" -I"$source/bindings/objc/include" "$library" \
  -Wl,-rpath,"$(dirname "$library")" -Wl,-rpath-link,"$build/bindings/c:$build/src"
TRACKER=$work/tracker "$source/tests/c/tracker.sh" "$1" "$source" none
