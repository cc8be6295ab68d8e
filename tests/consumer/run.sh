#!/usr/bin/env bash
# Installs the built tree, moves the copy, and builds and runs the README's host against it in both forms of the library:
# by CMake package, then by pkg-config with the flags that hosts are linked with. usage: run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
mv "$work/first" "$work/moved"
prefix=$work/moved
libdir=$(dirname "$(find "$prefix" -name libtarvo.a)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
failed=0
sed -n '/^```cpp$/,/^```$/p' "$source/README.md" | grep -v '^```' >"$work/unit.cpp"
nobody=http://127.0.0.1:9/api  # nobody listens there
# runs NAME PROGRAM: the host ends and prints its three positions.
runs() {
  timeout 60 "$2" "$work/home-$1" "$nobody" >"$work/$1.txt" 2>&1 &&
    grep -qF '"coordinates":[[11,48],[11,48.001],[11 ,48.002]]' "$work/$1.txt" && return
  echo "the host does not run: $1"
  tail -n 5 "$work/$1.txt"
  failed=1
}

for static in OFF ON; do
  cmake -S "$source/tests/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Debug \
    -DTARVO_STATIC=$static -DUNIT_SOURCE="$work/unit.cpp" -DTARVO_INCLUDE_DIR="$prefix/include" >"$work/configure.log"
  cmake --build "$work/build" >"$work/build.log" || { cat "$work/build.log"; exit 1; }
  runs "cmake-static-$static" "$work/build/consumer"
done

# Headers, library and package are of one version.
cat >"$work/version.cpp" <<'END'
#include <cstdio>
#include <cstring>
#include <tarvo/Version.h>
int main() { return std::puts(tarvo::version()) < 0 || std::strcmp(tarvo::version(), TARVO_VERSION_STRING) != 0; }
END
c++ "$work/version.cpp" -o "$work/version" $(pkg-config --cflags --libs tarvo)
[ "$("$work/version")" = "$(pkg-config --modversion tarvo)" ] || { echo "the versions differ"; failed=1; }

# What wraps other libraries shows nothing of them.
if nm -DC --defined-only "$libdir/libtarvo.so" | grep -v 'tarvo::'; then
  echo "the library exports what is not its own"
  failed=1
fi
# A host's link must not compile the SDK again with flags of its own.
if readelf -SW "$libdir/libtarvo.a" | grep -qF .gnu.lto_; then
  echo "the archive holds bytecode"
  failed=1
fi
# shellcheck disable=SC2046,SC2086
for flags in '' '-O0 -g' -O1 -Og '-O2 -fno-strict-aliasing' '-O1 -fsanitize=address'; do
  c++ $flags $(pkg-config --cflags tarvo) -c "$work/unit.cpp" -o "$work/main.o"
  c++ $flags "$work/main.o" $(pkg-config --libs tarvo) -o "$work/shared"
  c++ $flags "$work/main.o" "$libdir/libtarvo.a" $(pkg-config --libs --static tarvo | sed 's/-ltarvo//') -o "$work/static"
  for form in shared static; do runs "$form-${flags// /}" "$work/$form"; done
done
[ $failed = 0 ] && echo "a host builds and runs against the installed copy"
exit $failed
