#!/usr/bin/env bash
# test.sh                    build and run the whole test suite
# test.sh --sanitize address the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer
# test.sh --sanitize thread  the concurrency tests under ThreadSanitizer
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
usage() { sed -n '2,4s/^# //p' "$0"; }
san=""
case "$#:${1:-}" in
  0:) ;;
  2:--sanitize) san=$2 ;;
  1:-h|1:--help) usage; exit 0 ;;
  *) echo "test.sh: unknown arguments: $*" >&2; usage >&2; exit 2 ;;
esac
case "$san" in
  "")      dir=$root/build;      args=() ; ctest_args=() ;;
  address) dir=$root/build-asan; args=(-DCMAKE_BUILD_TYPE=Debug -DQMT_SANITIZE=address -DQMT_BUILD_BENCH=OFF); ctest_args=(-LE nosan) ;;
  thread)  dir=$root/build-tsan; args=(-DCMAKE_BUILD_TYPE=Debug -DQMT_SANITIZE=thread -DQMT_BUILD_BENCH=OFF);  ctest_args=(-L concurrency) ;;
  *) echo "test.sh: unknown sanitizer: $san (address or thread)" >&2; exit 2 ;;
esac
bash "$root/scripts/deps.sh"
bash "$root/scripts/build.sh" "$dir" -- "${args[@]}"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
cd "$dir"
ctest --output-on-failure -j "$(nproc)" --timeout 600 "${ctest_args[@]}"
