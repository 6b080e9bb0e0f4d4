#!/usr/bin/env bash
# check_readme.sh QMTRM SOURCE_DIR - the README's `check` and `run` examples on etc/ work as written
# from the source folder: check prints exactly what the README shows for both services (so every
# key the plug-in reads from etc/ is there with the value shown), and run polls every resource,
# writes no error and no warning but the first slowest laps, and stops cleanly.
set -u
qmtrm=$1
cd "$2" || exit 1
. "$(dirname "$0")/scratch.sh" readme
trap 'rm -rf "$work"; rm -f /dev/shm/*"$shm"*' EXIT
fail=0
check_line=$(grep -m1 '^build/bin/qmtrm check --conf-dir etc' README.md)
run_line=$(grep -m1 '^build/bin/qmtrm run --conf-dir etc' README.md)
[ -n "$check_line" ] && [ -n "$run_line" ] || { echo "FAIL: the README's examples are gone"; exit 1; }
# The program under test for build/bin/qmtrm, a log folder of the test's own for build/log.
as_test() { sed "s#^build/bin/qmtrm#$qmtrm#; s#build/log#$work/log#" <<<"$1"; }
for service in sdw disknp; do
  shown=$(sed -n "/^service $service on server node1/,/^\`\`\`\$/p" README.md | sed '$d')
  eval "$(as_test "$check_line") --service $service" >"$work/check" 2>&1
  rc=$?
  [ $rc -eq 0 ] && [ "$(cat "$work/check")" = "$shown" ] ||
    { echo "FAIL: check --service $service on etc/ -> $rc, not as the README shows:"; cat "$work/check"; fail=1; }
done
eval "$(as_test "$run_line") --shm-name $shm --duration 1.5" >"$work/run" 2>&1
rc=$?
cat "$work/run"
[ $rc -eq 0 ] || { echo "FAIL: run -> $rc"; fail=1; }
for r in sdw1 sdw2; do
  grep -q "$r .*status 0 (Normal)$" "$work/run" || { echo "FAIL: $r not polled"; fail=1; }
done
grep -q "every 5 s, time-out 60 s" "$work/run" || { echo "FAIL: sdw1's interval is not the one of etc/"; fail=1; }
if grep -h ' ERR \| WRN ' "$work/log/sdw.log" | grep -v ' SdwMonitor: Renew slowest lap\. '; then
  echo "FAIL: the run on etc/ wrote the errors or warnings above"; fail=1
fi
exit $fail
