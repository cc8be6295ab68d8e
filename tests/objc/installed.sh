#!/usr/bin/env bash
# An installed copy: the first programs of docs/objc.md build with the commands that stand there, the first by CMake too,
# and run.
# usage: installed.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for component in Unspecified tarvo_c tarvo_objc; do
  cmake --install "$build" --component $component --prefix "$work/first" >>"$work/install.log"
done
mv "$work/first" "$work/moved"
libdir=$(dirname "$(find "$work/moved" -name libtarvo-objc.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir LIBRARY_PATH=$libdir
cd "$work"
# Each program stands before its command and under its name: "unit.m" for gcc, "blocks.m" for clang.
for name in unit blocks; do
  sed -n "/^<!-- file: $name\.m -->\$/,/^\`\`\`\$/p" "$source/docs/objc.md" | grep -vE '^(```|<!-- file)' >$name.m
  command=$(grep -E "^(gcc|clang) .* $name\.m " "$source/docs/objc.md")
  compiler=${command%% *}
  if ! command -v "$compiler" >/dev/null || { [ "$compiler" = clang ] && [ ! -f /usr/include/Block.h ]; }; then
    echo "skipped: $compiler with what it needs is not installed"
    continue
  fi
  bash -c "$command -Wl,-rpath-link,$libdir" 2>"$name.log" || { cat "$name.log"; exit 1; }
  timeout 60 ./$name "$work/home-$name" http://127.0.0.1:9/api >$name.txt 2>>"$name.log" || { tail "$name.log"; exit 1; }
  grep -qF '[[11,48],[11,48.001],[11 ,48.002]]' $name.txt || { echo "$name prints something else"; cat $name.txt; exit 1; }
done
mkdir cmake && cp unit.m cmake/ && cat >cmake/CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(unit LANGUAGES C OBJC)
find_package(tarvo REQUIRED COMPONENTS c objc)
execute_process(COMMAND gnustep-config --objc-flags OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(flags UNIX_COMMAND "${flags}")
list(REMOVE_ITEM flags -MMD -MP)
add_executable(unit unit.m)
target_compile_options(unit PRIVATE ${flags})
target_link_libraries(unit PRIVATE tarvo::tarvo_objc gnustep-base objc)
END
{ OBJC=gcc cmake -S cmake -B cmake/build -G Ninja -DCMAKE_PREFIX_PATH="$work/moved" && cmake --build cmake/build; } >cmake.log 2>&1 ||
  { cat cmake.log; exit 1; }
timeout 60 cmake/build/unit "$work/home-cmake" http://127.0.0.1:9/api 2>>cmake.log | cmp - unit.txt || { tail cmake.log; exit 1; }
# Each object file of a host finds its classes, and nothing else of the library shows.
nm -D --defined-only "$libdir/libtarvo-objc.so" | grep -vE ' (R __objc_class_name_(CL|Location|Network|Tarvo)|[BDRV] (TarvoErrorDomain|UI[A-Za-z]*Notification)|A TARVO_OBJC_)' &&
  { echo "it exports what is not its own"; exit 1; }
echo "the first programs in Objective-C build and run against an installed copy"
