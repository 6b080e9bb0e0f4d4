#!/usr/bin/env bash
# win-build.sh SRC BUILD [TARGET...]: configures (once) and builds the 64-bit Windows cross build
# with mingw-w64: the given targets, or all of it.
set -euo pipefail
src=$1 build=$2; shift 2
if ! command -v x86_64-w64-mingw32-g++-posix >/dev/null; then
  echo "mingw-w64 is not installed"; exit 1
fi
if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-w64-x86_64.cmake" >/dev/null
fi
targets=()
for t in "$@"; do targets+=(--target "$t"); done
cmake --build "$build" -j "$(nproc)" "${targets[@]}" >/dev/null
