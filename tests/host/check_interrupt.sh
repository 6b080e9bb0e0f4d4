#!/usr/bin/env bash
# check_interrupt.sh QMTRM STALLFS MODE - stop signals, and leaving while a device holds a probe.
#   script:  SIGINT during a script's sleep ends it after that line and runs the teardown of what it
#            initialised (130).
#   hung:    SIGINT while an async pass of the script hangs leaves without teardown (4).
#   group:   SIGTERM to the process group `qmtrm run` was started in stops it once, cleanly (0).
#   device:  (root, FUSE) a real loop device holds the pass's probe in the kernel: SIGTERM makes
#            `qmtrm run` leave within its stop wait with 4, naming the device; the process that
#            holds the probe goes once the device answers.
# Exit 77: skipped.
set -u
qmtrm=$1
stallfs=$2
mode=$3
here=$(cd "$(dirname "$0")" && pwd)
. "$(dirname "$0")/scratch.sh" int
pid= loop= fs=
cleanup() {
  rm -f "$work/hold"
  [ -n "$pid" ] && kill -KILL -- "-$pid" "$pid" 2>/dev/null
  [ -n "$loop" ] && { for _ in $(seq 50); do losetup -d "$loop" 2>/dev/null && break; sleep 0.2; done; }
  if [ -n "$fs" ]; then
    umount "$work/mnt" 2>/dev/null || umount -l "$work/mnt" 2>/dev/null
    kill "$fs" 2>/dev/null
  fi
  rm -rf "$work"
  for f in /dev/shm/*"$shm"*; do [ -e "$f" ] && rm -f "$f"; done
}
trap cleanup EXIT
trap 'echo "FAIL: interrupted"; exit 1' INT TERM
cp -r "$here/conf" "$work/conf"
fail=0
check() { grep -qF -- "$2" "$1" || { echo "FAIL: $1 lacks: $2"; fail=1; }; }
# ends SECONDS: true when $pid has left within that time; its status in $rc.
ends() {
  for _ in $(seq 1 $(($1 * 10))); do kill -0 "$pid" 2>/dev/null || { wait "$pid"; rc=$?; return 0; }; sleep 0.1; done
  return 1
}
# shown TEXT SECONDS: waits until the output holds TEXT.
shown() {
  for _ in $(seq 1 $(($2 * 10))); do grep -qE -- "$1" "$work/out" && return 0; sleep 0.1; done
  echo "FAIL: never shown: $1"; cat "$work/out"; exit 1
}
script() {  # script FILE: runs it in the background on the test configuration
  QMT_STORAGE=sim "$qmtrm" script --conf-dir "$work/conf" --sim "$work/conf/sim.txt" --log-dir "$work/log" \
    --shm-name "$shm" --host node1 "$1" >"$work/out" 2>&1 &
  pid=$!
}

case $mode in
script)
  printf '%s\n' 'InitRscDll qmtsdw 0 0' 'DoMontr sdw sdw1' 'sleep 60000' 'DoMontr sdw sdw1' >"$work/s.qmt"
  script "$work/s.qmt"
  shown "3: sleep 60000" 10
  kill -INT "$pid"
  ends 10 || { echo "FAIL: no exit after SIGINT"; exit 1; }
  cat "$work/out"
  [ $rc -eq 130 ] || { echo "FAIL: exit status $rc, expected 130"; fail=1; }
  check "$work/out" "3: SIGINT: teardown: UninitRscDll -> 0"
  grep -q "^4: DoMontr" "$work/out" && { echo "FAIL: the line after the interrupted one ran"; fail=1; }
  ;;
hung)
  echo "disk 1 hang" >>"$work/conf/sim.txt"
  printf '%s\n' 'InitRscDll qmtsdw 0 0' 'async p DoMontr sdw sdw1' 'wait p 60000' >"$work/s.qmt"
  script "$work/s.qmt"
  shown "3: wait p 60000" 10
  kill -INT "$pid"
  ends 10 || { echo "FAIL: no exit after SIGINT"; exit 1; }
  cat "$work/out"
  [ $rc -eq 4 ] || { echo "FAIL: exit status $rc, expected 4"; fail=1; }
  check "$work/out" "3: SIGINT: async p DoMontr sdw sdw1 (line 2) still running; leaving without teardown"
  grep -q "teardown: Uninit" "$work/out" && { echo "FAIL: tore down under a running pass"; fail=1; }
  ;;
group)
  QMT_STORAGE=sim setsid "$qmtrm" run --conf-dir "$work/conf" --sim "$work/conf/sim.txt" --log-dir "$work/log" \
    --shm-name "$shm" --host node1 >"$work/out" 2>&1 &
  pid=$!
  shown "sdw1" 10
  kill -TERM -- "-$pid"
  ends 15 || { echo "FAIL: no exit after SIGTERM to the group"; exit 1; }
  cat "$work/out"
  [ $rc -eq 0 ] || { echo "FAIL: exit status $rc, expected 0"; fail=1; }
  check "$work/out" "stopping on SIGTERM"
  grep -q "second SIGTERM" "$work/out" && { echo "FAIL: one SIGTERM taken twice"; fail=1; }
  ;;
device)
  [ "$(id -u)" -eq 0 ] || { echo "SKIP: loop devices need root"; exit 77; }
  [ -w /dev/fuse ] || { echo "SKIP: /dev/fuse is not usable"; exit 77; }
  command -v mkfs.ext4 >/dev/null || { echo "SKIP: mkfs.ext4 missing"; exit 77; }
  uuid=$(cat /proc/sys/kernel/random/uuid)
  truncate -s 16M "$work/img" && mkfs.ext4 -q -F -U "$uuid" "$work/img" || { echo "FAIL: mkfs"; exit 1; }
  mkdir "$work/mnt"
  "$stallfs" "$work/mnt" "$work/img" "$work/hold" &
  fs=$!
  for _ in $(seq 50); do [ -e "$work/mnt/disk.img" ] && break; sleep 0.1; done
  loop=$(losetup -f --show "$work/mnt/disk.img" 2>/dev/null) || { echo "SKIP: losetup refuses a FUSE-served file"; exit 77; }
  sed -i "s/0a1b2c3d-0000-4000-8000-000000000001/$uuid/" "$work/conf/clp.conf"
  sleep 1  # the attach's own uevents are in before the first scan
  QMT_STORAGE=linux "$qmtrm" run --conf-dir "$work/conf" --log-dir "$work/log" --shm-name "$shm" --host node1 \
    --stop-wait 1000 --verbose >"$work/out" 2>&1 &
  pid=$!
  shown "sdw1 +pass .*status 0" 15  # a second pass: the volume is known and the disk healthy
  monitor=$(pgrep -P "$pid" | head -1)
  touch "$work/hold"
  sleep 2  # the next pass's probe is now held in the kernel, on the pass's own thread
  started=$SECONDS
  kill -TERM "$pid"
  ends 10 || { echo "FAIL: qmtrm did not leave while the device held its probe"; cat "$work/out"; exit 1; }
  cat "$work/out"
  [ $rc -eq 4 ] || { echo "FAIL: exit status $rc, expected 4"; fail=1; }
  [ $((SECONDS - started)) -le 4 ] || { echo "FAIL: left after $((SECONDS - started)) s"; fail=1; }
  check "$work/out" "passes still running after 1000 ms: sdw1; leaving without teardown; probe stuck in the kernel: disk $((1000 + ${loop#/dev/loop})) ($loop)"
  # The process holding the probe stays (its exit cannot finish) until the device answers.
  # (Its first thread is a zombie at once; the one in the kernel is another.)
  gone() { ! ls "/proc/$monitor/task" 2>/dev/null | grep -qvx "$monitor"; }
  [ -n "$monitor" ] && ! gone || { echo "FAIL: no process left behind holding the probe"; fail=1; }
  rm -f "$work/hold"
  for _ in $(seq 100); do gone && break; sleep 0.1; done
  gone || { echo "FAIL: the process left behind stays after the device answered"; fail=1; }
  ;;
*) echo "unknown mode $mode"; exit 2 ;;
esac
[ $fail -eq 0 ] && echo "PASS: $mode"
exit $fail
