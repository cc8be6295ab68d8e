#!/usr/bin/env bash
# An installed copy: docs/c.md's first program builds by pkg-config and by CMake in a project of C alone, and runs; who
# leaves the component out gets nothing of it. usage: installed.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --component Unspecified --prefix "$work/first" >"$work/install.log"
left=$(find "$work/first" | grep -iE 'tarvo-?c([.T/]|$)' || true)
[ -z "$left" ] || { echo "installed for C++: $left"; exit 1; }
cmake --install "$build" --component tarvo_c --prefix "$work/first" >>"$work/install.log"
mv "$work/first" "$work/moved"
libdir=$(dirname "$(find "$work/moved" -name libtarvo-c.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
sed -n '/^```c$/,/^```$/p' "$source/docs/c.md" | grep -v '^```' >"$work/unit.c"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -pedantic -Werror "$work/unit.c" $(pkg-config --cflags --libs tarvo-c) -o "$work/unit-pc"
cat >"$work/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(unit LANGUAGES C)
find_package(tarvo REQUIRED COMPONENTS c)
add_executable(unit-cmake unit.c)
target_link_libraries(unit-cmake PRIVATE tarvo::tarvo_c)
END
{ cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" && cmake --build "$work/build"; } >"$work/build.log" 2>&1 ||
  { cat "$work/build.log"; exit 1; }
for unit in "$work/unit-pc" "$work/build/unit-cmake"; do
  timeout 60 "$unit" "$work/home-${unit##*/}" http://127.0.0.1:9/api | grep -qF '[[11,48],[11,48.001],[11 ,48.002]]' ||
    { echo "${unit##*/} does not run"; exit 1; }
done
# No C++ of the library's own shows.
nm -D --defined-only "$libdir/libtarvo-c.so" | grep -vE ' (T tarvo_|A TARVO_C_)' && { echo "it exports what is not its own"; exit 1; }
echo "the first program in C builds and runs against an installed copy"
