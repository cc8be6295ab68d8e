#!/usr/bin/env bash
# Installs the built tree, moves the copy, and builds and runs the host against it: CMake package, then pkg-config.
# usage: run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
mv "$work/first" "$work/moved"
prefix=$work/moved

cmake -S "$source/tests/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DTARVO_INCLUDE_DIR="$prefix/include" >"$work/configure.log"
cmake --build "$work/build"
expected='"coordinates":[[11,48],[11,48.001],[11 ,48.002]]'
"$work/build/consumer" "$work/home1" | grep -qF "$expected"

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tarvo.pc)")
# shellcheck disable=SC2046
c++ $(pkg-config --cflags tarvo) "$source/tests/consumer/main.cpp" $(pkg-config --libs tarvo) -o "$work/by-pkg-config"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir tarvo) "$work/by-pkg-config" "$work/home2" | grep -qF "$expected"
# shellcheck disable=SC2046
c++ $(pkg-config --cflags tarvo) "$source/tests/consumer/main.cpp" "$(find "$prefix" -name libtarvo.a)" \
  $(pkg-config --libs --static tarvo | sed 's/-ltarvo//') -o "$work/static"
"$work/static" "$work/home3" | grep -qF "$expected"
echo "a host builds and runs against the installed copy"
