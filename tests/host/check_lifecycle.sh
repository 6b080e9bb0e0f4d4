#!/usr/bin/env bash
# check_lifecycle.sh QMTRM QMTSTAT MODE - `qmtrm run` from start to exit, and what qmtstat shows of it.
#   hup:      SIGHUP is ignored with a line; SIGTERM then stops it cleanly (0).
#   second:   a pass hangs; SIGTERM starts the stop wait (20 s), a second SIGTERM leaves at once
#             with 4 naming the pass.
#   fifo:     the configuration is a FIFO nobody writes: refused at once as not a regular file (5),
#             never waited on.
#   twice:    a second run on the same shared-memory name refuses to start (5) while the first lives.
#   initfail: the policy lacks the monitor type: InitRscDll fails and the plug-in's error lines of
#             that attempt are shown (5).
#   default:  without --shm-name the prefix is per user and server, not /qmt; the log folder is
#             made 0750; a name configured twice is reported and polled once.
#   stat:     qmtstat lists both services' resources with status, check point, overdue flag and
#             writer, and marks the rows stale once the writer is gone.
set -u
qmtrm=$1
qmtstat=$2
mode=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$(dirname "$0")/scratch.sh" life
host=node1
pids=()
cleanup() {
  # The monitor process of each run first: it would otherwise stop cleanly into the removed folder.
  for p in "${pids[@]}"; do pkill -KILL -P "$p"; kill -KILL "$p"; done 2>/dev/null
  rm -rf "$work"
  for f in /dev/shm/*"$shm"*; do [ -e "$f" ] && rm -f "$f"; done
}
trap cleanup EXIT
cp -r "$here/conf" "$work/conf"
export QMT_STORAGE=sim
fail=0
check() { grep -qF -- "$2" "$1" || { echo "FAIL: $1 lacks: $2"; fail=1; }; }
# start OUT [ARGS...]: qmtrm run in the background on the test configuration.
start() {
  local out=$1; shift
  "$qmtrm" run --conf-dir "$work/conf" --sim "$work/conf/sim.txt" --log-dir "$work/log" --host "$host" \
    "$@" >"$work/$out" 2>&1 &
  pids+=($!)
}
# ends PID SECONDS: true when the process has left within that time; its status in $rc.
ends() {
  for _ in $(seq 1 $(($2 * 10))); do kill -0 "$1" 2>/dev/null || { wait "$1"; rc=$?; return 0; }; sleep 0.1; done
  return 1
}

case $mode in
hup)
  start out --shm-name "$shm" --stop-wait 500; pid=${pids[-1]}
  sleep 1.5; kill -HUP "$pid"; sleep 0.5
  kill -0 "$pid" 2>/dev/null || { echo "FAIL: SIGHUP ended the run"; fail=1; }
  kill -TERM "$pid"
  ends "$pid" 10 || { echo "FAIL: no exit after SIGTERM"; exit 1; }
  cat "$work/out"
  [ $rc -eq 0 ] || { echo "FAIL: exit status $rc, expected 0"; fail=1; }
  check "$work/out" "SIGHUP ignored"; check "$work/out" "UninitRscDll -> status 0"
  ;;
second)
  echo "disk 2 hang" >>"$work/conf/sim.txt"
  start out --shm-name "$shm" --stop-wait 20000; pid=${pids[-1]}
  sleep 1.5; kill -TERM "$pid"; sleep 0.5
  kill -0 "$pid" 2>/dev/null || { cat "$work/out"; echo "FAIL: left before the stop wait"; exit 1; }
  kill -TERM "$pid"
  ends "$pid" 3 || { cat "$work/out"; echo "FAIL: still running 3 s after a second SIGTERM"; exit 1; }
  cat "$work/out"
  [ $rc -eq 4 ] || { echo "FAIL: exit status $rc, expected 4"; fail=1; }
  check "$work/out" "second SIGTERM during the stop: leaving at once without teardown; passes still running: sdw1"
  ;;
fifo)
  rm "$work/conf/clp.conf"; mkfifo "$work/conf/clp.conf"
  start out --shm-name "$shm" --stop-wait 500; pid=${pids[-1]}
  ends "$pid" 3 || { cat "$work/out"; echo "FAIL: the configuration FIFO was waited on"; exit 1; }
  cat "$work/out"
  [ $rc -eq 5 ] || { echo "FAIL: exit status $rc, expected 5"; fail=1; }
  check "$work/out" "clp.conf: not a regular file"
  ;;
twice)
  start first --shm-name "$shm" --stop-wait 500; first=${pids[-1]}
  sleep 1
  "$qmtrm" run --conf-dir "$work/conf" --sim "$work/conf/sim.txt" --log-dir "$work/log" --host "$host" \
    --shm-name "$shm" --duration 1 >"$work/second" 2>&1
  rc=$?
  cat "$work/second"
  [ $rc -eq 5 ] || { echo "FAIL: second run exit status $rc, expected 5"; fail=1; }
  check "$work/second" "is in use by qmtrm pid $first"
  kill -TERM "$first"
  ends "$first" 10 || { echo "FAIL: first run does not stop"; exit 1; }
  [ $rc -eq 0 ] || { cat "$work/first"; echo "FAIL: first run exit status $rc"; fail=1; }
  # Once it is gone the name is free again.
  "$qmtrm" run --conf-dir "$work/conf" --sim "$work/conf/sim.txt" --log-dir "$work/log" --host "$host" \
    --shm-name "$shm" --duration 0.5 >"$work/third" 2>&1 || { cat "$work/third"; echo "FAIL: third run"; fail=1; }
  ;;
initfail)
  sed -i '/<type>/d' "$work/conf/policy/sdw.xml"
  "$qmtrm" run --conf-dir "$work/conf" --sim "$work/conf/sim.txt" --log-dir "$work/log" --host "$host" \
    --shm-name "$shm" >"$work/out" 2>&1
  rc=$?
  cat "$work/out"
  [ $rc -eq 5 ] || { echo "FAIL: exit status $rc, expected 5"; fail=1; }
  check "$work/out" "the plug-in's error lines of this attempt"
  check "$work/out" "key=/root/monitor/sdw/type)"
  ;;
default)
  host="nq$$x$RANDOM"; shm="qmt-$(id -u)-$host"
  sed -i "s/\"node1\"/\"$host\"/g" "$work/conf/clp.conf"
  sed -i 's#<sdw name="sdw3">#<sdw name="sdw2"><polling><interval>1</interval><timeout>2</timeout></polling><parameters><object>sd2</object></parameters></sdw>&#' \
    "$work/conf/clp.conf"
  env -u QMT_SHM_NAME "$qmtrm" run --conf-dir "$work/conf" --sim "$work/conf/sim.txt" --log-dir "$work/log" \
    --host "$host" --duration 1 >"$work/out" 2>&1
  rc=$?
  cat "$work/out"
  [ $rc -eq 0 ] || { echo "FAIL: exit status $rc"; fail=1; }
  check "$work/out" "shared memory /$shm"
  check "$work/out" "duplicate name sdw2 (resource 2 has it too): only the first is served"
  [ "$(grep -c 'sdw2 .*start request' "$work/out")" -eq 1 ] || { echo "FAIL: sdw2 started twice"; fail=1; }
  [ "$(stat -c %a "$work/log")" = 750 ] || { echo "FAIL: log folder mode $(stat -c %a "$work/log")"; fail=1; }
  ;;
stat)
  echo "disk 2 hang" >>"$work/conf/sim.txt"
  start sdw --shm-name "$shm" --stop-wait 500; sdw=${pids[-1]}
  start np --shm-name "$shm" --stop-wait 500 --service disknp; np=${pids[-1]}
  sleep 3.5
  "$qmtstat" --shm-name "$shm" >"$work/stat"; rc=$?
  cat "$work/stat"
  [ $rc -eq 0 ] || { echo "FAIL: qmtstat exit status $rc"; fail=1; }
  grep -Eq "^sdw +sdw2 +0 Normal +4 MONEND .* pid $sdw +Normal" "$work/stat" || { echo "FAIL: sdw2 row"; fail=1; }
  grep -Eq "^sdw +sdw3 +watches nothing" "$work/stat" || { echo "FAIL: sdw3 row"; fail=1; }
  grep -Eq "^sdw +sdw1 .* OVERDUE " "$work/stat" || { echo "FAIL: sdw1 not overdue"; fail=1; }
  grep -Eq "^disknp +np1 +0 Normal .* [0-9]+ +pid $np " "$work/stat" || { echo "FAIL: np1 row"; fail=1; }
  "$qmtstat" --shm-name "$shm" --json >"$work/json"
  [ "$(jq -r '.resources[] | select(.name=="sdw1") | .overdue' "$work/json")" = true ] || { echo "FAIL: JSON overdue"; fail=1; }
  kill -KILL "$sdw"; wait "$sdw" 2>/dev/null
  "$qmtstat" --shm-name "$shm" >"$work/stat2"
  cat "$work/stat2"
  grep -Eq "^sdw +sdw2 .* pid $sdw stale " "$work/stat2" || { echo "FAIL: dead writer not stale"; fail=1; }
  grep -Eq "^disknp +np1 .* pid $np +-" "$work/stat2" || { echo "FAIL: live writer marked"; fail=1; }
  ;;
*) echo "unknown mode $mode"; exit 2 ;;
esac
exit $fail
