#!/usr/bin/env bash
# demo.sh [qmtrm demo flags]: installs what the build needs, builds the two programs the demo
# uses (not the tests and benchmarks: scripts/test.sh builds those), and runs the host's demo on
# its embedded configuration and simulated disks.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/deps.sh" build
dir=$root/build
[ -f "$dir/build.ninja" ] || cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j "$(nproc)" --target qmtrm qmtstat
cd "$root"
exec build/bin/qmtrm demo "$@"
