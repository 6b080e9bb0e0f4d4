#!/usr/bin/env bash
# run_script.sh QMTRM SCRIPT [CONFDIR [OPTION...]] - runs one qmtrm script (with the options
# given) against a fresh copy of the test configuration and simulated storage, with its own log
# folder and shared-memory names, and removes all of it afterwards, also when the script fails.
set -u
qmtrm=$1
script=$2
conf=${3:-$(cd "$(dirname "$0")" && pwd)/conf}
shift $(($# < 3 ? $# : 3))
. "$(dirname "$0")/scratch.sh" test
cleanup() {
  rm -rf "$work"
  for f in /dev/shm/*"$shm"*; do [ -e "$f" ] && rm -f "$f"; done
}
trap cleanup EXIT
cp -r "$conf" "$work/conf"
QMT_STORAGE=sim timeout -k 5 60 "$qmtrm" script "$script" --conf-dir "$work/conf" --sim "$work/conf/sim.txt" \
  --log-dir "$work/log" --shm-name "$shm" --host node1 "$@"
rc=$?
if [ $rc -ne 0 ]; then
  for f in rm.log sdw.log; do
    [ -f "$work/log/$f" ] && { echo "---- $f (last 40 lines)"; tail -n 40 "$work/log/$f"; }
  done
fi
exit $rc
