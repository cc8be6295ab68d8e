#!/usr/bin/env bash
# The host of these tests, compiled by one compiler, against a sandbox. 77 where that is not installed.
# usage: host.sh TARVO_PROGRAM SOURCE_DIR OBJC_LIBRARY COMPILER
set -euo pipefail
program=$1 source=$2 library=$3 compiler=$4
work=$(mktemp -d)
trap 'kill ${sandbox:-} 2>/dev/null || true; rm -rf "$work"' EXIT
. "$source/tests/objc/flags.sh"
build=$(dirname "$library")/../..
compile "$work/host" "$compiler" -g "$source/tests/objc/host.m" -I"$source/bindings/objc/include" \
  -I"$source/bindings/objc/include/tarvo-objc/clang" "$library" -Wl,-rpath,"$(dirname "$library")" -Wl,-rpath-link,"$build/bindings/c:$build/src"
"$program" sandbox --port 0 --data "$work/backend" >"$work/addresses" 2>"$work/sandbox.log" &
sandbox=$!
for _ in $(seq 200); do [ "$(wc -l <"$work/addresses")" -ge 2 ] && break; sleep 0.05; done
read -r _ backend <"$work/addresses"
timeout 240 "$work/host" "$work/home" "$backend" 2>"$work/host.log" || { echo "status $?"; tail -n 40 "$work/host.log"; exit 1; }
# What the host's objects have thrown was caught, and said.
for callback in locationManagerDidReceiveNewLocations tarvoReceiverStartWithAccuracy; do
  grep -q "Tarvo: $callback has thrown Listener: no" "$work/host.log" || { echo "nothing is said of $callback"; exit 1; }
done
echo "the host of $compiler runs"
