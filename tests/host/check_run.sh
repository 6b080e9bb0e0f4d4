#!/usr/bin/env bash
# check_run.sh QMTRM clean|stuck|disknp - `qmtrm run` on the test configuration, stopped by a signal.
#   clean: every resource is started, polled and stopped; the service is torn down; exit 0.
#   stuck: disk 2 hangs, so sdw1's pass is reported overdue once; at SIGTERM the host names sdw1,
#          waits --stop-wait and leaves with 4 without tearing down.
#   disknp: the network-partition service, stopped by SIGINT: workers started, polled, stopped.
set -u
qmtrm=$1
mode=$2
here=$(cd "$(dirname "$0")" && pwd)
. "$(dirname "$0")/scratch.sh" run
pid=""
cleanup() {
  [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
  rm -rf "$work"
  for f in /dev/shm/*"$shm"*; do [ -e "$f" ] && rm -f "$f"; done
}
trap cleanup EXIT
cp -r "$here/conf" "$work/conf"
[ "$mode" = stuck ] && echo "disk 2 hang" >>"$work/conf/sim.txt"
service=sdw; signal=TERM
[ "$mode" = disknp ] && { service=disknp; signal=INT; }
QMT_STORAGE=sim "$qmtrm" run --service "$service" --conf-dir "$work/conf" --sim "$work/conf/sim.txt" \
  --log-dir "$work/log" --shm-name "$shm" --host node1 --stop-wait 500 >"$work/out" 2>&1 &
pid=$!
# clean: a few polling intervals; stuck: past sdw1's time-out of 2 s.
sleep "$([ "$mode" = stuck ] && echo 3.5 || echo 2.5)"
kill -"$signal" "$pid"
for _ in $(seq 1 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$pid" 2>/dev/null; then cat "$work/out"; echo "FAIL: still running 10 s after SIGTERM"; exit 1; fi
wait "$pid"
rc=$?
pid=""
cat "$work/out"
fail=0
check() { grep -qF -- "$1" "$work/out" || { echo "FAIL: output lacks: $1"; fail=1; }; }
refute() { ! grep -qF -- "$1" "$work/out" || { echo "FAIL: output has: $1"; fail=1; }; }
check "start request -> status 0"; check "every 1 s, time-out 2 s"
check "stopping on SIG$signal"
if [ "$mode" = disknp ]; then
  [ $rc -eq 0 ] || { echo "FAIL: exit status $rc, expected 0"; fail=1; }
  check "InitNpRscDll -> status 0"
  for r in np1 np2; do grep -q "$r .*stop request -> status 0" "$work/out" || { echo "FAIL: $r not stopped"; fail=1; }; done
  check "UninitNpRscDll -> status 0"
  grep -qF "<<< Start[0x110] of np1 >>>" "$work/log/sdw.log" || { echo "FAIL: np1 not started in sdw.log"; fail=1; }
  exit $fail
fi
check "InitRscDll -> status 0"
for r in sdw1 sdw2 sdw3; do check "$r"; done
if [ "$mode" = clean ]; then
  [ $rc -eq 0 ] || { echo "FAIL: exit status $rc, expected 0"; fail=1; }
  check "stop request -> status 0"
  check "UninitRscDll -> status 0"
  refute "OVERDUE"
  [ "$(grep -c 'sdw2 .*status 0' "$work/out")" -ge 1 ] || { echo "FAIL: no status of sdw2"; fail=1; }
  grep -qF "Start - (DllName=qmtsdw" "$work/log/sdw.log" || { echo "FAIL: no start in sdw.log"; fail=1; }
  # The host's own log keeps the status lines it printed.
  grep -qF "Reporter: sdw2 status 0" "$work/log/rm.log" || { echo "FAIL: no status of sdw2 in rm.log"; fail=1; }
  grep -qF "Reporter: - UninitRscDll -> status 0" "$work/log/rm.log" || { echo "FAIL: no teardown in rm.log"; fail=1; }
else
  [ $rc -eq 4 ] || { echo "FAIL: exit status $rc, expected 4"; fail=1; }
  [ "$(grep -c 'OVERDUE' "$work/out")" -eq 1 ] || { echo "FAIL: overdue not reported exactly once"; fail=1; }
  grep -q "sdw1 .*OVERDUE" "$work/out" || { echo "FAIL: overdue report does not name sdw1"; fail=1; }
  check "passes still running after 500 ms: sdw1; leaving without teardown"
  refute "UninitRscDll"
  # sdw2 went on being polled while sdw1 hung.
  grep -q "sdw2 .*status 0" "$work/out" || { echo "FAIL: sdw2 not polled"; fail=1; }
fi
exit $fail
