#!/usr/bin/env bash
# build.sh [DIR] [-- extra cmake args]: configure once, then build incrementally.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}; shift || true
[ "${1:-}" = "--" ] && shift
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
fi
cmake --build "$dir" -j "$(nproc)"
