#!/usr/bin/env bash
# A port of another name, here the one for Linux renamed: what it lacks is told, and the kit holds with nothing else of
# the SDK beside it. usage: alone.sh SOURCE_DIR CMAKE CXX LAUNCHER
set -euo pipefail
cmake=$2 compiler=$3 launcher=${4-}
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder"/{src,tests}
cp -r "$1"/{cmake,include} "$folder"
cp -r "$1/src/platform" "$folder/src"
cp -r "$1"/tests/{conformance,support} "$folder/tests"
configure() {
  "$cmake" -S "$folder/tests/conformance" -B "$folder/build" -G Ninja -DTARVO_PLATFORM=newos \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher" >"$folder/told" 2>&1
}
for part in device foundation persistence urlsession; do
  ! configure || { echo "configured without $part/newos"; exit 1; }
  tr -s ' \n' ' ' <"$folder/told" >"$folder/words"
  grep -q "The port to newos lacks the sources of: .*src/platform/$part/newos.*docs/porting.md" "$folder/words" ||
    { echo "not told what is missing:"; cat "$folder/told"; exit 1; }
  mv "$folder/src/platform/$part/linux" "$folder/src/platform/$part/newos"
done
sed -i 's,/linux/,/newos/,' "$folder"/src/platform/*/newos/*.cpp
configure || { cat "$folder/told"; exit 1; }
"$cmake" --build "$folder/build" -j2 >"$folder/told" 2>&1 || { cat "$folder/told"; exit 1; }
"$folder/build/conformance" --gtest_brief=1
